#include "email/Alarm.h"

#include <atomic>

namespace Email {

namespace {

constinit std::atomic<bool> expired{false};
static_assert(std::atomic<bool>::is_always_lock_free, "written by a signal handler");

} // namespace

void Alarm::setExpiry(bool value) noexcept {
    expired.store(value, std::memory_order_relaxed);
}

bool Alarm::hasExpired() noexcept {
    return expired.load(std::memory_order_relaxed);
}

} // namespace Email
