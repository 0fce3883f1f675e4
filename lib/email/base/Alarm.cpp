#include "email/base/Alarm.h"

#include <unistd.h>

#include <cerrno>
#include <csignal>

namespace {

// Without SA_RESTART: the wait that the alarm interrupts must end.
void setAlarmAction(void (*handler)(int)) noexcept {
    struct sigaction action {};
    action.sa_handler = handler;
    ::sigemptyset(&action.sa_mask);
    ::sigaction(SIGALRM, &action, nullptr);
}

} // namespace

void alarmHandler(int /*signal*/) noexcept {
    const int saved = errno;
    SetAlarm(true, 0);
    errno = saved;
}

void SetAlarm(bool expired, int seconds) noexcept {
    // Cancelled first: an alarm that is already on its way must not mark the new flag as expired.
    ::alarm(0);
    Email::Alarm::setExpiry(expired);
    setAlarmAction(seconds != 0 ? alarmHandler : SIG_DFL);
    ::alarm(static_cast<unsigned>(seconds));
}
