#include "email/engine/RetrySchedule.h"

#include <algorithm>

namespace Email {

bool overdue(const DateTime& first, const DateTime& now, std::int32_t maxInterval) noexcept {
    return now > first + maxInterval;
}

bool tooSoon(const DateTime& last, const DateTime& now, std::int32_t minInterval) noexcept {
    return minInterval != 0 && last.gm_gt(now + -std::int64_t{minInterval});
}

std::int32_t waitAfter(const DateTime& first, const DateTime& last, std::int32_t minInterval,
                       std::int32_t maxWait) noexcept {
    if (minInterval == 0 || maxWait <= minInterval) {
        return minInterval;
    }
    return std::clamp(last - first, minInterval, maxWait);
}

} // namespace Email
