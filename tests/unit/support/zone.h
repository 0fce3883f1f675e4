#pragma once

#include <cstdlib>
#include <ctime>

inline void setZone(const char* zone) {
    ::setenv("TZ", zone, 1);
    ::tzset();
}
