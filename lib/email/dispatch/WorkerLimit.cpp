#include "email/dispatch/WorkerLimit.h"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <limits>
#include <sys/stat.h>

namespace Dispatch {

namespace {

constexpr std::int64_t kUnlimited = std::numeric_limits<int>::max();
constexpr std::int64_t kOwnDescriptors = 32; // of the dispatcher: one more for each worker
constexpr std::int64_t kWorkerKiB = 1024;    // of memory that a worker does not share

std::int64_t descriptorsLeft(int wanted) {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return kUnlimited;
    }
    const rlim_t needed = static_cast<rlim_t>(wanted) + kOwnDescriptors;
    if (limit.rlim_cur < needed && limit.rlim_cur < limit.rlim_max) {
        // As far as any process may without asking.
        const rlimit raised{std::min(needed, limit.rlim_max), limit.rlim_max};
        if (::setrlimit(RLIMIT_NOFILE, &raised) == 0) {
            limit = raised;
        }
    }
    return static_cast<std::int64_t>(std::min<rlim_t>(limit.rlim_cur, kUnlimited)) -
           kOwnDescriptors;
}

std::int64_t processesOfThisUser() {
    std::int64_t count = 0;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator("/proc", error)) {
        struct stat status {};
        const std::string name = entry.path().filename();
        const bool process = name.find_first_not_of("0123456789") == std::string::npos;
        if (process && ::stat(entry.path().c_str(), &status) == 0 && status.st_uid == ::getuid()) {
            ++count;
        }
    }
    return count;
}

// The limit does not hold for the superuser.
std::int64_t processesLeft() {
    rlimit limit{};
    if (::getuid() == 0 || ::getrlimit(RLIMIT_NPROC, &limit) != 0 ||
        limit.rlim_cur >= static_cast<rlim_t>(kUnlimited)) {
        return kUnlimited;
    }
    return static_cast<std::int64_t>(limit.rlim_cur) - processesOfThisUser();
}

std::int64_t memoryLeft() {
    std::ifstream memory("/proc/meminfo");
    for (std::string key, unit; memory >> key;) {
        std::int64_t amount = 0;
        memory >> amount;
        std::getline(memory, unit);
        if (key == "MemAvailable:") {
            return amount / kWorkerKiB;
        }
    }
    return kUnlimited;
}

} // namespace

WorkerLimit workerLimit(int wanted) {
    WorkerLimit limit{.workers = wanted};
    const auto bound = [&limit](std::int64_t most, const char* because) {
        if (most < limit.workers) {
            limit.workers = static_cast<int>(std::max<std::int64_t>(most, 1));
            limit.because = because;
        }
    };
    bound(descriptorsLeft(wanted), "open files");
    bound(processesLeft(), "processes of this user");
    bound(memoryLeft(), "memory");
    return limit;
}

} // namespace Dispatch
