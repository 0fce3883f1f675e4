// When a message is due or given up, and how long one may take.
#include "email/base/Alarm.h"
#include "email/engine/ListSender.h"
#include "email/engine/RetrySchedule.h"
#include "support/mail.h"

#include <csignal>
#include <unistd.h>

namespace {

constexpr std::time_t kNow = 1'700'000'000;

// Seconds since the try in question, the interval, the decision.
using Wait = std::tuple<std::int64_t, std::int32_t, bool>;
// clang-format off
const Wait kOverdue[] = {
    {400000, 400000, false}, {400001, 400000, true}, {-5, 0, false}, {0, -1, true},
    {kNow + 2, 400000, true},
    {kNow - 2147483000, 400000, false}}; // a 32-bit sum would wrap and return all mail at once
const Wait kTooSoon[] = {
    {2000, 2000, false}, {1999, 2000, true}, {0, 0, false}, {-3600, 2000, true}, {-3600, 0, false},
    {-5, -5, false}, {-6, -5, true}};
// clang-format on

TEST(Schedule, DecidesStrictlyBeyondItsIntervals) {
    for (const auto& [ago, interval, decision] : kOverdue) {
        EXPECT_EQ(Email::overdue(DateTime(kNow - ago), DateTime(kNow), interval), decision) << ago;
    }
    for (const auto& [ago, interval, decision] : kTooSoon) {
        EXPECT_EQ(Email::tooSoon(DateTime(kNow - ago), DateTime(kNow), interval), decision) << ago;
    }
}

// A stamp of a file is compared by its digits, whatever the local zone makes of its seconds.
TEST(Schedule, TooSoonComparesDigitsAndNotSeconds) {
    setZone("EST5");
    std::array<char, DateTime::kTextSize> text{};
    DateTime last;
    last.Set(DateTime(kNow - 100).Get(text.data()));
    EXPECT_TRUE(Email::tooSoon(last, DateTime(kNow), 2000));
    EXPECT_FALSE(Email::tooSoon(last, DateTime(kNow), 50));
    EXPECT_FALSE(Email::overdue(last, DateTime(kNow), 50));
}

TEST(Alarm, LatestCallWinsFiringDisarmsAndEveryEngineClearsIt) {
    SetAlarm(true, 100);
    SetAlarm(false, 50);
    EXPECT_LE(::alarm(0), 50U);
    EXPECT_FALSE(Email::Alarm::hasExpired());
    std::raise(SIGALRM);
    EXPECT_TRUE(Email::Alarm::hasExpired());
    EXPECT_EQ(std::signal(SIGALRM, SIG_DFL), SIG_DFL);
    {
        const ListSender engine;
        EXPECT_FALSE(Email::Alarm::hasExpired());
        SetAlarm(true, 100);
    }
    EXPECT_FALSE(Email::Alarm::hasExpired());
    EXPECT_EQ(::alarm(0), 0U);
    ListSender engine;
    // Seconds ahead of now, 0 for none; whether the alarm has expired, whether it is armed.
    for (const auto& [ahead, expired, armed] :
         {std::tuple{90, false, true}, {0, false, false}, {-1, true, false}}) {
        engine.setDeadLines(DateTime(0), ahead == 0 ? DateTime(0) : DateTime(-1) + ahead);
        EXPECT_EQ(Email::Alarm::hasExpired(), expired) << ahead;
        EXPECT_EQ(::alarm(0) > 0, armed) << ahead;
    }
}

} // namespace
