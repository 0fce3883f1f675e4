// How many bytes were asked of operator new in all since the counter was made.
#pragma once

#include <cstddef>

class MemoryCount {
public:
    MemoryCount() noexcept;
    [[nodiscard]] std::size_t allocated() const noexcept;

private:
    std::size_t start_;
};
