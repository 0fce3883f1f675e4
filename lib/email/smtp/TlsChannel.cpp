#include "email/smtp/TlsChannel.h"

#include "email/base/Alarm.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <utility>

namespace Email {

namespace {

using Clock = std::chrono::steady_clock;

long leftOf(Clock::time_point end) noexcept {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
    return static_cast<long>(std::clamp<long long>(left, 0, INT_MAX));
}

} // namespace

TlsChannel::TlsChannel(std::unique_ptr<TlsSession> session, int socket) noexcept
    : session_(std::move(session)), socket_(socket) {}

TlsChannel::~TlsChannel() {
    session_->close();
}

bool TlsChannel::wants(TlsResult result) noexcept {
    events_ = result == TlsResult::WantWrite ? POLLOUT : POLLIN;
    return result == TlsResult::WantRead || result == TlsResult::WantWrite;
}

// The whole handshake is under one limit: a peer that sends a byte now and then gains nothing.
bool TlsChannel::handshake(long limitMs) {
    const auto end = Clock::now() + std::chrono::milliseconds(limitMs);
    TlsResult result = session_->handshake();
    while (wants(result)) {
        const long left = leftOf(end);
        if (left == 0 || Alarm::hasExpired()) {
            trouble_ = "time is up";
            return false;
        }
        pollfd entry{socket_, events_, 0};
        ::poll(&entry, 1, static_cast<int>(left)); // a signal only makes the loop go round
        result = session_->handshake();
    }
    if (result != TlsResult::Done) {
        trouble_ = session_->trouble();
    }
    return result == TlsResult::Done;
}

ssize_t TlsChannel::outcome(TlsResult result, std::size_t done) noexcept {
    if (wants(result)) {
        errno = EAGAIN;
        return -1;
    }
    if (result == TlsResult::Failed) {
        errno = EPROTO;
        return -1;
    }
    return result == TlsResult::Done ? static_cast<ssize_t>(done) : 0;
}

ssize_t TlsChannel::receive(char* to, std::size_t room) noexcept {
    std::size_t done = 0;
    const TlsResult result = session_->read(to, room, done);
    return outcome(result, done);
}

ssize_t TlsChannel::send(const char* from, std::size_t size) noexcept {
    std::size_t done = 0;
    const TlsResult result = session_->write(from, size, done);
    // The end for who reads is an error for who writes.
    return outcome(result == TlsResult::Closed ? TlsResult::Failed : result, done);
}

} // namespace Email
