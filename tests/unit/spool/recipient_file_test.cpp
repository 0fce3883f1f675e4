#include "email/spool/Recipients.h"
#include "support/mail.h"

#include <limits>

namespace {

std::string content(const Recipients& r) {
    return std::string(r.GetSender()) + '|' + std::to_string(r.tries()) + '|' + records(r);
}

const std::string kTime = "2002/02/01@14:05:09_GMT\n";
const std::string kNone = "1970/00/01@00:00:00_GMT\n";
const std::string kHead = kTime + "2002/02/02@00:00:00_GMT\n3\n";

TEST(Recipients, FileIsRead) {
    setZone("UTC0");
    const Scratch dir;
    const std::string nul("\0", 1);
    const std::string x(2040, 'x');
    // clang-format off
    const std::tuple<bool, std::string, std::string> cases[] = {
        {false, "s@a\nb@c.d\te\n<f>\n", "s@a|0|<f>:-1 <b@c.d\te>:-1 "},
        {false, "s\na\t450\n", "s|0|<a\t450>:-1 "},
        {true, kHead + "<s@t>\n<a>\t450\n<b>\t-1\n", "<s@t>|3|<b>:-1 <a>:450 "},
        {true, kHead + "s" + nul + "z\na" + nul + "\t450\n", "s|3|<a>:-1 "},
        {true, kHead + "s\na\nb\tc\td\ne\t 12x\nf\t99999999999\n",
         "s|3|<f>:2147483647 <e>:12 <b\tc>:0 <a>:-1 "},
        {true, kHead + "s\n" + x + "\t123456\t1\nb\t2\n", "s|3|<b>:2 <>:1 <" + x + ">:123456 "},
        {true, kHead + x + "1234567\na\n", x + "1234567|3|<a>:-1 "},
        // A head line is cut at 63 characters; the rest is the next line.
        {true, kTime + kTime + std::string(62, ' ') + "57\ns\n", "7|5|<s>:-1 "}};
    // clang-format on
    for (const auto& [full, text, expected] : cases) {
        Recipients r;
        EXPECT_TRUE(r.Read(FileName(dir.write("m.rmd", text).c_str()), full));
        EXPECT_EQ(content(r), expected) << text;
        EXPECT_EQ(r.firstSendTime().Time == 1014991509, full);
    }
    const FileName never(dir.write("m", kTime + kNone + "1\ns\n").c_str());
    Recipients r;
    EXPECT_FALSE(r.Read(never, true));
    setZone("EST5"); // where the stamp of none is a time
    EXPECT_TRUE(r.Read(never, true));
    EXPECT_EQ(r.lastSendTime().Time, 5 * 3600);
}

TEST(Recipients, WhatCannotBeReadOrWrittenChangesNothing) {
    const Scratch dir;
    const FileName old(dir.write("m", "old").c_str());
    Recipients r;
    EXPECT_FALSE(r.OverWrite(old) || r.OverWrite(FileName(dir.path("n").c_str()))); // nobody
    EXPECT_EQ(dir.state("m"), "m old");
    r.Add("a", IDS_RTS450);
    r.setSender("Some One <s@t.u>");
    for (const std::string& path : {dir.path("none"), dir.write("empty", ""), dir.path("")}) {
        EXPECT_FALSE(r.Read(FileName(path.c_str()), true));
        EXPECT_FALSE(r.OverWrite(FileName((path + "/m/m").c_str())));
        EXPECT_EQ(content(r), "<s@t.u>|0|<a>:450 ");
    }
}

TEST(Recipients, WritingReversesTheOrderAndCountsTheTry) {
    setZone("UTC0");
    const Scratch dir;
    const FileName file(dir.write("m", kHead + "s@t\n<a>\t450\n<b>\t-1\n").c_str());
    Recipients r;
    const std::time_t before = std::time(nullptr);
    ASSERT_TRUE(r.Read(file, true) && r.OverWrite(file));
    EXPECT_EQ(content(r), "s@t|4|");
    const std::string written = dir.read("m");
    EXPECT_EQ(written.substr(0, 24), kTime);
    EXPECT_EQ(written.substr(48), "4\ns@t\n<b>\t-1\n<a>\t450\n");
    ASSERT_TRUE(r.Read(file, true));
    EXPECT_GE(r.lastSendTime().Time, before);

    dir.write("m", kTime + kTime + "99999999999\ns\na\t450\n"); // the count stays at its limit
    ASSERT_TRUE(r.Read(file, true) && r.OverWrite(file));
    EXPECT_EQ(r.tries(), std::numeric_limits<std::int32_t>::max());
    r.resetTries();
    EXPECT_TRUE(r.tries() == 0 && r.firstSendTime() == r.lastSendTime());
    EXPECT_GE(r.firstSendTime().Time, before);
}

TEST(Recipients, FirstTryWithoutAnAnswerIsWrittenAsNone) {
    const Scratch dir;
    const FileName file(dir.path("m").c_str());
    for (const auto& [code, unattempted] :
         {std::pair{TIMEOUTEXPIRED, true}, {IDS_NO_REASON, true}, {COMMS_FAILED, false}}) {
        Recipients r;
        for (const bool first : {true, false}) { // the second try has its time
            r.Add("a", IDS_RTS450);
            r.Add("b", code);
            ASSERT_TRUE(r.OverWrite(file));
            EXPECT_EQ(dir.read("m").find(kNone) == 24, first && unattempted) << code;
        }
    }
}

} // namespace
