#include "email/Utils.h"
#include "store_support.h"

#include <array>
#include <cstdint>
#include <limits>

namespace {

std::string stamp(const DateTime& time) {
    std::array<char, DateTime::kTextSize> text;
    return time.Get(text.data());
}

DateTime parsed(const char* text) {
    DateTime time(-1);
    time.Set(text);
    return time;
}

TEST(Stamp, IsReadAsLocalTimeAndWrittenBackAsRead) {
    struct {
        const char* zone;
        const char* read;
        std::int64_t time;
        const char* written;
    } const cases[] = {
        {"UTC0", "2002/02/01@14:05:09_GMT", 1014991509, "2002/02/01@14:05:09_GMT"},
        {"EST5", "2002/02/01@14:05:09_GMT", 1015009509, "2002/02/01@14:05:09_GMT"},
        // Read without daylight saving, whatever the season.
        {"CET-1CEST", "2002/06/01@12:00:00_GMT", 1025521200, "2002/06/01@12:00:00_GMT"},
        {"UTC0", "1970/00/01@00:00:00_GMT", 0, "1970/00/01@00:00:00_GMT"},
        {"EST5", "1970/00/01@00:00:00_GMT", 18000, "1970/00/01@00:00:00_GMT"},
        {"UTC0", "2003/11/31@23:59:59", 1072915199, "2003/11/31@23:59:59_GMT"},
        {"UTC0", " 2002/ 2/+1@14:5:9", 1014991509, "2002/02/01@14:05:09_GMT"},
        {"UTC0", "2002/02/01 14:05:09", 1014940800, "2002/02/01@00:00:00_GMT"},
        {"UTC0", "2002/14/01@00:00:00_GMT", 1046476800, "2002/14/01@00:00:00_GMT"},
        {"UTC0", "no stamp", -1, "0000/00/00@00:00:00_GMT"},
        {"UTC0", "99999999999/0/1@0:0:0", 67767976201996800, "2147483647/00/01@00:00:00_GMT"},
        {"UTC0", "-99999999999/-99999999999/1@0:0:0", -1,
         "-2147481748/-2147483648/01@00:00:00_GMT"},
    };
    for (const auto& c : cases) {
        setZone(c.zone);
        const DateTime time = parsed(c.read);
        EXPECT_EQ(time.Time, c.time) << c.zone << ' ' << c.read;
        EXPECT_EQ(stamp(time), c.written);
    }
}

TEST(Time, MinusOneMeansNowAndZeroTheEpoch) {
    const std::time_t before = std::time(nullptr);
    const DateTime now(-1);
    EXPECT_GE(now.Time, before);
    EXPECT_EQ(DateTime(-2) + 1, now); // a sum of -1 means now as well
    EXPECT_EQ(stamp(DateTime(0)), "1970/00/01@00:00:00_GMT");
    EXPECT_EQ(stamp(DateTime()), "1900/00/00@00:00:00_GMT");
    EXPECT_EQ(stamp(DateTime(std::numeric_limits<std::time_t>::max())), stamp(DateTime()));
}

TEST(Time, SumsPass2038AndDifferencesAreClamped) {
    const DateTime late = DateTime(2147483000) + 400000;
    EXPECT_GT(late, DateTime(2147483647));
    EXPECT_EQ(late - DateTime(2147483000), 400000);
    EXPECT_EQ(DateTime(0) - DateTime(std::time_t{1} << 40), std::numeric_limits<int>::min());
    EXPECT_EQ(DateTime(std::time_t{1} << 40) - DateTime(0), std::numeric_limits<int>::max());
}

TEST(Time, LaterByFieldsComparesYearsFirst) {
    const auto later = [](const char* a, const char* b) { return parsed(a).gm_gt(parsed(b)); };
    EXPECT_TRUE(later("2002/00/01@00:00:00", "2001/11/31@23:59:59"));
    EXPECT_TRUE(later("2002/02/01@14:05:10", "2002/02/01@14:05:09"));
    EXPECT_FALSE(later("2002/02/01@14:05:09", "2002/02/01@14:05:09"));
    EXPECT_FALSE(later("2002/01/31@23:59:59", "2002/02/01@00:00:00"));
}

TEST(Time, HexAndMailForms) {
    std::array<char, DateTime::kMailTextSize> text;
    EXPECT_STREQ(DateTime(0x1234).TimeStamp(text.data()), "00001234");
    EXPECT_STREQ(parsed("").TimeStamp(text.data()), "ffffffff");
    EXPECT_STREQ(DateTime(0x1'0000'0002).TimeStamp(text.data()), "00000002");
    setZone("EST5");
    EXPECT_STREQ(DateTime(1014991509).GetForMail(text.data()),
                 "Fri, 01 Mar 2002 09:05:09 -0500 (EST)");
    EXPECT_STREQ(DateTime(std::numeric_limits<std::time_t>::max()).GetForMail(text.data()), "");
}

} // namespace
