// How things are written, and the rewriting of a recipient file's text.
#include "retryq/DueNow.h"
#include "retryq/Format.h"

#include <gtest/gtest.h>

#include <array>
#include <sstream>

using namespace Retryq;

TEST(Text, LargestUnitThatLeavesTwo) {
    const std::pair<std::int64_t, const char*> kCases[]{
        {-1, "-"},    {0, "0s"},       {119, "119s"},  {120, "2m"},    {7199, "119m"},
        {7200, "2h"}, {172799, "47h"}, {172800, "2d"}, {400000, "4d"},
    };
    for (const auto& [seconds, text] : kCases) {
        EXPECT_EQ(durationText(seconds), text);
    }
}

TEST(Text, SizesAndResults) {
    EXPECT_EQ(sizeText(1023), "1023");
    EXPECT_EQ(sizeText(1024), "1.0K");
    EXPECT_EQ(sizeText(10240), "10K");
    EXPECT_EQ(sizeText(std::int64_t{5} << 40), "5.0T");
    EXPECT_EQ(codeAndText(-1), "not tried yet");
    EXPECT_EQ(codeAndText(1001), "1001 Mail Server is down or unreachable");
    EXPECT_EQ(codeAndText(450), "450 Requested mail action not taken: mailbox unavailable");
}

std::string tableText(int width, const std::string& text) {
    std::ostringstream out;
    Table table({out, width, false}, {{"LEAF", 6}, {"N", 3, true}, {"TEXT", 8, false, true}});
    const std::array<std::string, 3> cells{"a", "7", text};
    table.row(cells);
    return out.str();
}

TEST(Text, TableIsCutOnATerminalOnly) {
    const std::string text(200, 'x');
    EXPECT_EQ(tableText(0, text), "a         7  " + text + "\n");
    EXPECT_EQ(tableText(30, text), "a         7  " + text.substr(0, 15) + "..\n");
    EXPECT_EQ(tableText(30, "short"), "a         7  short\n");
    EXPECT_EQ(tableText(5, text), "a         7  xx..\n"); // the flexible column keeps a little
}

TEST(DueNow, OnlyTheLatestTryChanges) {
    const DateTime due(1'000'000'000);
    const std::string head = "2020/00/01@00:00:00_GMT\n";
    const std::string rest = "\n7\n<s@x>\n<a@b>\t450\n<c@d>\t-1\ncut off";
    EXPECT_EQ(withLatestTry(head + "2026/10/21@10:00:00_GMT" + rest, due),
              head + "2001/08/09@01:46:40_GMT" + rest);
    // The zero time would make the file unusable.
    EXPECT_EQ(withLatestTry(head + "x" + rest, DateTime(0)),
              head + "1969/11/31@23:59:58_GMT" + rest);
    for (const std::string& text :
         {std::string(), head, std::string("x\ny"), head + "y", head + std::string(64, 'y') + rest,
          std::string(64, 'x') + "\ny" + rest}) {
        EXPECT_EQ(withLatestTry(text, due), "") << text;
    }
}
