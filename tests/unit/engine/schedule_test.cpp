#include "email/Alarm.h"
#include "email/RetrySchedule.h"
#include "engine_support.h"

#include <gtest/gtest.h>

#include <csignal>
#include <unistd.h>

namespace {

constexpr std::time_t kNow = 1'700'000'000;

struct Wait {
    std::int64_t ago; // of the try in question
    std::int32_t interval;
    bool decision;
};

TEST(Schedule, OverdueIsStrictlyLaterThanTheLimit) {
    for (const auto& [ago, interval, decision] :
         {Wait{400000, 400000, false}, Wait{400001, 400000, true}, Wait{-5, 0, false},
          Wait{0, -1, true}, Wait{kNow + 2, 400000, true},
          // A 32-bit sum would wrap here and return all mail at once.
          Wait{kNow - 2147483000, 400000, false}}) {
        EXPECT_EQ(Email::overdue(DateTime(kNow - ago), DateTime(kNow), interval), decision) << ago;
    }
}

TEST(Schedule, TooSoonIsStrictlyLaterThanTheThreshold) {
    for (const auto& [ago, interval, decision] :
         {Wait{2000, 2000, false}, Wait{1999, 2000, true}, Wait{0, 0, false},
          Wait{-3600, 2000, true}, Wait{-3600, 0, false}, Wait{-5, -5, false},
          Wait{-6, -5, true}}) {
        EXPECT_EQ(Email::tooSoon(DateTime(kNow - ago), DateTime(kNow), interval), decision) << ago;
    }
}

// A stamp of a file is compared by its digits, whatever the local zone makes of its seconds.
TEST(Schedule, TooSoonComparesDigitsAndNotSeconds) {
    ::setenv("TZ", "EST5", 1);
    ::tzset();
    std::array<char, DateTime::kTextSize> text{};
    DateTime last;
    last.Set(DateTime(kNow - 100).Get(text.data()));
    EXPECT_EQ(last - DateTime(kNow - 100), 5 * 3600);
    EXPECT_TRUE(Email::tooSoon(last, DateTime(kNow), 2000));
    EXPECT_FALSE(Email::tooSoon(last, DateTime(kNow), 50));
    EXPECT_FALSE(Email::overdue(last, DateTime(kNow), 50));
    ::setenv("TZ", "UTC", 1);
    ::tzset();
}

TEST(Schedule, TracesBothDecisionsWithOppositeWords) {
    struct Tracing : ListSender {
        Tracing() { trace = 1; }
    } engine; // both times are now
    const ScratchSpool spool;
    EXPECT_TRUE(engine.tooSoon());
    EXPECT_FALSE(engine.CheckTime());
    EXPECT_EQ(linesWith(" IN 2000 seconds = Not Now"), 1);
    EXPECT_EQ(linesWith(") Time to retry = -400000 result = Not Now"), 1);
    mailscanGlobals::retry_min_interval = 0;
    EXPECT_FALSE(engine.tooSoon());
    EXPECT_EQ(loggedLines.back(), "<30>    Immediate retry required");
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
}

struct DeadLine {
    std::int64_t ahead; // of now; 0 none
    bool expired;
    bool armed;
};
TEST(Alarm, FollowsTheSecondDeadLine) {
    ListSender engine;
    for (const auto& [ahead, expired, armed] :
         {DeadLine{90, false, true}, DeadLine{0, false, false}, DeadLine{-1, true, false}}) {
        engine.setDeadLines(DateTime(kNow), ahead == 0 ? DateTime(0) : DateTime(-1) + ahead);
        EXPECT_EQ(Email::Alarm::hasExpired(), expired) << ahead;
        EXPECT_EQ(::alarm(0) > 0, armed) << ahead;
    }
}

} // namespace
