// A local datagram socket to listen on in the collector's place.
#pragma once

#include "fwall/UniqueFd.h"

#include <csignal>
#include <cstddef>
#include <span>
#include <string>
#include <sys/types.h>

// From construction on, SIGINT and SIGTERM end a wait in receive() instead of the process.
class LogSocket {
public:
    // Binds `path`. open() is false and errno tells why when that fails; a path that exists is
    // never taken over, for another collector may be listening there.
    explicit LogSocket(std::string path);
    // Removes the path that it made.
    ~LogSocket();
    LogSocket(const LogSocket&) = delete;
    LogSocket& operator=(const LogSocket&) = delete;

    [[nodiscard]] bool open() const noexcept { return bound_; }

    // Waits for a datagram and gives its full length, which may be more than was stored; negative
    // when a signal ended the wait or the socket failed (errno; EINTR for the signal).
    [[nodiscard]] ssize_t receive(std::span<std::byte> buffer);

private:
    std::string path_;
    UniqueFd fd_;
    bool bound_ = false;
    sigset_t waitMask_{};
};
