// The exclusive lock on one queued message: a flock(2) on its recipient file, never waited for. Any
// number of walkers, and other programs that honour it, may work on one spool.
#pragma once

#include "fwall/UniqueFd.h"

#include <sys/types.h>

#include <string>

namespace Email {

class MessageLock {
public:
    enum class State {
        Held,      // the message is this process's until the object goes
        Busy,      // another process has it, or replaced or removed the file meanwhile
        NotOpened, // the file cannot be opened, or is no regular file: error() tells why
    };

    explicit MessageLock(const std::string& recipientFile) noexcept;

    // Releases the lock by closing the descriptor, also when the file is gone by then.
    ~MessageLock();

    MessageLock(const MessageLock&) = delete;
    MessageLock& operator=(const MessageLock&) = delete;

    [[nodiscard]] State state() const noexcept { return state_; }
    [[nodiscard]] int error() const noexcept { return error_; } // errno

    // While it is held: the recipient file, open for reading, and its size in bytes.
    [[nodiscard]] int fd() const noexcept { return fd_.get(); }
    [[nodiscard]] off_t size() const noexcept { return size_; }

private:
    [[nodiscard]] State acquire(const char* path) noexcept;

    UniqueFd fd_;
    int error_ = 0;
    off_t size_ = 0;
    State state_;
};

} // namespace Email
