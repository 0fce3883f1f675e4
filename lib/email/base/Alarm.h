// The process-wide delivery alarm. A SIGALRM handler raises it; socket writes, SMTP commands and
// the body transfer poll it and give the conversation up.
#pragma once

#include <atomic>

namespace Email {

class Alarm {
public:
    // Stores the flag. Async-signal-safe.
    static void setExpiry(bool expired) noexcept {
        expired_.store(expired, std::memory_order_relaxed);
    }

    [[nodiscard]] static bool hasExpired() noexcept {
        return expired_.load(std::memory_order_relaxed);
    }

private:
    static_assert(std::atomic<bool>::is_always_lock_free, "written by a signal handler");
    static inline constinit std::atomic<bool> expired_{false};
};

} // namespace Email

// Sets the alarm flag, then arms SIGALRM in `seconds`, or disarms it when that is 0. One alarm per
// process: the latest call wins. Async-signal-safe.
void SetAlarm(bool expired, int seconds) noexcept;

// The handler of SIGALRM: raises the flag and disarms. errno is kept.
void alarmHandler(int signal) noexcept;
