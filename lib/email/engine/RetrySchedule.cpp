#include "email/engine/RetrySchedule.h"

namespace Email {

bool overdue(const DateTime& first, const DateTime& now, std::int32_t maxInterval) noexcept {
    return now > first + maxInterval;
}

bool tooSoon(const DateTime& last, const DateTime& now, std::int32_t minInterval) noexcept {
    return minInterval != 0 && last.gm_gt(now + -std::int64_t{minInterval});
}

} // namespace Email
