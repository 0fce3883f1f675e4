// The test program's operator new: it counts, and fails on demand.
#pragma once

#include <cstddef>

extern std::size_t allocated; // bytes asked for so far, in all
extern int allocationsLeft;   // until one fails; -1 for none
