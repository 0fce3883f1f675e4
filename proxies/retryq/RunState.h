// What a dispatcher tells other programs of its run: since when its workers have had their
// messages, and which destinations it has found dead.
//
// It stands in a file that exists in memory only and has no name: whoever may look at the process's
// descriptors reads it there, and it is gone with the process, however that ends.
#pragma once

#include "fwall/UniqueFd.h"

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <map>
#include <string>

namespace Dispatch {
class Dispatcher;
} // namespace Dispatch

namespace Retryq {

class RunState {
public:
    // To be called about once a second. Replaces what the call before has told as a whole: a reader
    // finds the one or the other. What cannot be told is not told.
    void publish(const Dispatch::Dispatcher& run);

    // What another process has published.
    struct Told {
        std::map<pid_t, std::time_t> inHandSince;  // of workers with a message
        std::map<std::string, std::uint64_t> dead; // destinations: messages left for them
    };
    // Nothing when it has published nothing, or its descriptors may not be looked at. It is that
    // process's word alone; what has no sense in it is left out.
    [[nodiscard]] static Told of(pid_t pid);

private:
    UniqueFd file_;
};

} // namespace Retryq
