// How many workers the system has room for.
#pragma once

#include <string>

namespace Dispatch {

struct WorkerLimit {
    int workers = 0;       // at least 1
    std::string because{}; // what keeps it below what was asked for; empty when nothing does
};

// Of `wanted` (at least 1) workers as many as descriptors (RLIMIT_NOFILE, raised as far as it may
// be), processes of this user (RLIMIT_NPROC) and free memory allow. What cannot be found out limits
// nothing.
[[nodiscard]] WorkerLimit workerLimit(int wanted);

} // namespace Dispatch
