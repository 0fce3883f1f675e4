// What the fuzz targets share.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>

// A property that the code under test must keep, in every build type.
inline void require(bool holds) {
    if (!holds) {
        std::abort();
    }
}
