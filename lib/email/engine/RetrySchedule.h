// The retry schedule as two decisions over the times that a recipient file holds. Neither reads a
// clock, so that the edges can be tested.
#pragma once

#include "email/base/Utils.h"

#include <cstdint>

namespace Email {

// True when `now` is strictly later than `first` + `maxInterval` seconds: the message has been
// deferred for too long and goes back to its sender. Compares seconds since the epoch.
[[nodiscard]] bool overdue(const DateTime& first, const DateTime& now,
                           std::int32_t maxInterval) noexcept;

// True when `last` is strictly later than `now` - `minInterval` seconds: the message is left alone.
// A last attempt in the future (the clock was set back) stays too soon. An interval of 0 is never
// too soon. Compares the broken-down forms, which for a time read from a file are the digits as
// they stand there.
[[nodiscard]] bool tooSoon(const DateTime& last, const DateTime& now,
                           std::int32_t minInterval) noexcept;

// Seconds that a message waits after its last attempt: `minInterval`, or with a `maxWait` above it
// as long as the message was old at that attempt, within these two. So the tries of a message that
// nobody takes come ever more rarely. 0 (at once) stays 0.
[[nodiscard]] std::int32_t waitAfter(const DateTime& first, const DateTime& last,
                                     std::int32_t minInterval, std::int32_t maxWait) noexcept;

} // namespace Email
