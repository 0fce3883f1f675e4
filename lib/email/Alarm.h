// The process-wide delivery alarm. A SIGALRM handler raises it; socket writes, SMTP commands and
// the body transfer poll it and give the conversation up.
#pragma once

namespace Email {

class Alarm {
public:
    // Stores the flag. Async-signal-safe.
    static void setExpiry(bool expired) noexcept;

    [[nodiscard]] static bool hasExpired() noexcept;
};

} // namespace Email
