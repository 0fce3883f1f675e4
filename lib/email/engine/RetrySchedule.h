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

} // namespace Email
