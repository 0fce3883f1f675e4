// The clocks of a test program, which a test moves on or back.
#pragma once

#include <atomic>

extern std::atomic<int> steadyAhead; // seconds
extern std::atomic<int> wallAhead;
