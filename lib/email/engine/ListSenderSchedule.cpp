// When ListSender tries a message, and until when it may go on: the retry schedule and the alarm.
#include "email/base/Alarm.h"
#include "email/engine/ListSender.h"
#include "email/engine/RetrySchedule.h"
#include "email/site/mailscanGlobals.h"
#include "email/telling/DeliveryLog.h"

#include <array>
#include <string>

namespace {

// A time as the trace lines show it.
struct TimeTexts {
    explicit TimeTexts(const DateTime& time) noexcept {
        time.GetForMail(mail.data());
        time.TimeStamp(stamp.data());
    }
    std::array<char, DateTime::kMailTextSize> mail{};
    std::array<char, 9> stamp{};
};

} // namespace

bool ListSender::CheckTime() const {
    const DateTime now(-1);
    const DateTime first = recipients_.firstSendTime();
    const bool expired = Email::overdue(first, now, mailscanGlobals::retry_max_interval);
    if (trace != 0) {
        const TimeTexts texts(first);
        const std::int32_t late = now - (first + mailscanGlobals::retry_max_interval);
        Email::writeLine(Email::LogLine::TraceCheckTime,
                         {.args = {texts.mail.data(), texts.stamp.data(), std::to_string(late),
                                   expired ? "Now" : "Not Now"}});
    }
    return expired;
}

bool ListSender::tooSoon() const {
    const std::int32_t interval =
        Email::waitAfter(recipients_.firstSendTime(), recipients_.lastSendTime(),
                         mailscanGlobals::retry_min_interval, mailscanGlobals::retry_max_wait);
    // As "-now" has it, or a table without a least wait.
    if (interval == 0) {
        if (trace != 0) {
            Email::writeLine(Email::LogLine::TraceImmediateRetry, {});
        }
        return false;
    }
    const DateTime now(-1);
    const DateTime last = recipients_.lastSendTime();
    const bool soon = Email::tooSoon(last, now, interval);
    if (trace != 0) {
        const DateTime threshold = now + -std::int64_t{interval};
        const TimeTexts lastTexts(last);
        const TimeTexts thresholdTexts(threshold);
        Email::writeLine(Email::LogLine::TraceNextAttempt,
                         {.args = {lastTexts.mail.data(), lastTexts.stamp.data(),
                                   thresholdTexts.mail.data(), thresholdTexts.stamp.data(),
                                   std::to_string(last - threshold), soon ? "Not Now" : "Now"}});
    }
    return soon;
}

void ListSender::setDeadLines(const DateTime& first, const DateTime& second) {
    commandDeadline = first;
    finalDeadline = second;
    if (second == DateTime(0)) {
        SetAlarm(false, 0);
        return;
    }
    const std::int32_t remaining = second - DateTime(-1);
    // A time that is over counts as an alarm that has fired; alarm(0) would never fire.
    SetAlarm(remaining <= 0, remaining > 0 ? remaining : 0);
}
