#include "LogSocket.h"

#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

namespace {

// Only there so that ppoll() is interrupted.
void onSignal(int) {}

// Keeps the signals off except during the wait, so that none is lost in between.
void prepareSignals(sigset_t& waitMask) {
    struct sigaction action {};
    action.sa_handler = onSignal;
    sigset_t blocked;
    sigemptyset(&blocked);
    for (const int number : {SIGINT, SIGTERM}) {
        sigaction(number, &action, nullptr);
        sigaddset(&blocked, number);
    }
    sigprocmask(SIG_BLOCK, &blocked, &waitMask);
}

bool bindTo(int fd, const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        return false;
    }
    std::memcpy(address.sun_path, path.data(), path.size());
    return bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

} // namespace

LogSocket::LogSocket(std::string path)
    : path_(std::move(path)), fd_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    prepareSignals(waitMask_);
    bound_ = fd_.valid() && bindTo(fd_.get(), path_);
}

LogSocket::~LogSocket() {
    if (bound_)
        unlink(path_.c_str());
}

ssize_t LogSocket::receive(std::span<std::byte> buffer) {
    pollfd waiting{fd_.get(), POLLIN, 0};
    if (ppoll(&waiting, 1, nullptr, &waitMask_) < 0)
        return -1;
    return recv(fd_.get(), buffer.data(), buffer.size(), MSG_TRUNC);
}
