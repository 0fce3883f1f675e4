#include "email/base/Assert.h"
#include "email/base/Utils.h"
#include "email/base/resource.h"
#include "support/reporter.h"
#include "support/zone.h"

#include <array>
#include <limits>
#include <tuple>

namespace {

TEST(FailedCheck, EndsTheRunWithOneEvent) {
    EXPECT_FAILED_CHECK(assert_failure("a > b", "lib/email/x", 171),
                        "13500 0 2 32 1 1=lib/email/x 8=a > b 15=171 .\n");
    EXPECT_FAILED_CHECK(assert_failure(nullptr, nullptr, 0), "32 1 15=0 .\n");
}

std::string stamp(const DateTime& time) {
    std::array<char, DateTime::kTextSize> text;
    return time.Get(text.data());
}

DateTime parsed(const char* text) {
    DateTime time(-1);
    time.Set(text);
    return time;
}

const DateTime kLast(std::numeric_limits<std::time_t>::max());

TEST(Texts, CodesAndResources) {
    EXPECT_STREQ(smtpString(IDS_RTS452), "Requested action not taken: insufficent system storage. "
                                         "[SMTP Error Code 452]");
    EXPECT_STREQ(smtpString(TIMEOUTEXPIRED), "Timer expired");
    const char* const unknown = smtpString(ACTION_OKA);
    EXPECT_STREQ(unknown, "Unknown SMTP code 250");
    static_cast<void>(smtpString(IDS_NO_REASON));
    EXPECT_STREQ(unknown, "Unknown SMTP code -1"); // one buffer
    EXPECT_STREQ(resourceString(static_cast<resourceIds>(208)), "Unknown resource string 208");
}

TEST(Time, StampIsReadAsLocalTimeAndWrittenBackAsRead) {
    // clang-format off
    const std::tuple<const char*, const char*, std::int64_t, const char*> cases[] = {
        {"UTC0", "2002/02/01@14:05:09_GMT", 1014991509, "2002/02/01@14:05:09_GMT"},
        {"EST5", "2002/02/01@14:05:09_GMT", 1015009509, "2002/02/01@14:05:09_GMT"},
        // Read without daylight saving, whatever the season.
        {"CET-1CEST", "2002/06/01@12:00:00_GMT", 1025521200, "2002/06/01@12:00:00_GMT"},
        {"UTC0", "1970/00/01@00:00:00_GMT", 0, "1970/00/01@00:00:00_GMT"},
        {"EST5", "1970/00/01@00:00:00_GMT", 18000, "1970/00/01@00:00:00_GMT"},
        {"UTC0", "no stamp", -1, "0000/00/00@00:00:00_GMT"},
        {"UTC0", "99999999999/0/1@0:0:0", 67767976201996800, "2147483647/00/01@00:00:00_GMT"},
        {"UTC0", "-99999999999/-99999999999/1@0:0:0", -1, "-2147481748/-2147483648/01@00:00:00_GMT"}};
    // clang-format on
    for (const auto& [zone, text, time, written] : cases) {
        setZone(zone);
        EXPECT_EQ(parsed(text).Time, time) << zone << ' ' << text;
        EXPECT_EQ(stamp(parsed(text)), written);
    }
    EXPECT_EQ(stamp(DateTime(0)), "1970/00/01@00:00:00_GMT");
    EXPECT_EQ(stamp(DateTime()), "1900/00/00@00:00:00_GMT");
    EXPECT_EQ(stamp(kLast), stamp(DateTime()));
}

TEST(Time, SumsPass2038DifferencesAreClampedAndYearsComparedFirst) {
    const std::time_t before = std::time(nullptr);
    EXPECT_GE(DateTime(-1).Time, before);
    EXPECT_GE((DateTime(-2) + 1).Time, before); // a sum of -1 means now as well
    const DateTime late = DateTime(2147483000) + 400000;
    EXPECT_TRUE(late > DateTime(2147483647) && late - DateTime(2147483000) == 400000);
    EXPECT_EQ(DateTime(0) - DateTime(std::time_t{1} << 40), std::numeric_limits<int>::min());
    EXPECT_EQ(DateTime(std::time_t{1} << 40) - DateTime(0), std::numeric_limits<int>::max());
    const auto later = [](const char* a, const char* b) { return parsed(a).gm_gt(parsed(b)); };
    EXPECT_TRUE(later("2002/00/01@00:00:00", "2001/11/31@23:59:59"));
    EXPECT_TRUE(later("2002/02/01@14:05:10", "2002/02/01@14:05:09"));
    EXPECT_FALSE(later("2002/02/01@14:05:09", "2002/02/01@14:05:09"));
    EXPECT_FALSE(later("2002/01/31@23:59:59", "2002/02/01@00:00:00"));
}

TEST(Time, HexAndMailForms) {
    std::array<char, DateTime::kMailTextSize> text;
    EXPECT_STREQ(DateTime(0x1'0000'1234).TimeStamp(text.data()), "00001234");
    EXPECT_STREQ(parsed("").TimeStamp(text.data()), "ffffffff");
    setZone("EST5");
    EXPECT_STREQ(DateTime(1014991509).GetForMail(text.data()),
                 "Fri, 01 Mar 2002 09:05:09 -0500 (EST)");
    EXPECT_STREQ(kLast.GetForMail(text.data()), "");
}

} // namespace
