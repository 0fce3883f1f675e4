// Tries out a spool directory the way retryer uses it, and looks for files that no run will ever
// deal with.
#pragma once

#include "email/spool/QueuedMessage.h"
#include "retryq/Settings.h"

#include <cstdint>
#include <string>
#include <vector>

namespace Retryq {

struct SpoolReport {
    std::string directory;
    std::uint64_t messages = 0;
    std::uint64_t freeBytes = 0;
    std::uint64_t freeInodes = 0; // 0 with totalInodes 0: the file system has no fixed number
    std::uint64_t totalInodes = 0;
    std::string owner; // "user:group 2770"
    std::vector<Finding> findings;
};

// `queue` tells the form of the recipient files in this spool. Makes and removes two small files of
// its own; a walker passes them over.
// Of one kind of finding, the first `most` are told one by one.
[[nodiscard]] SpoolReport checkSpool(const std::string& directory,
                                     Email::QueuedMessage::Queue queue, std::size_t most = 20);

// What is wrong with a queued message, and what retryer does with it when its time has come.
struct MessageFault {
    std::string text{};      // empty: nothing is wrong
    std::string_view fate{}; // "untouched", "removed", "returned"; empty: it is tried as usual
};

// Why a recipient file cannot be used, or a warning about one that can.
[[nodiscard]] MessageFault recipientFileFault(const std::string& path, bool full);

} // namespace Retryq
