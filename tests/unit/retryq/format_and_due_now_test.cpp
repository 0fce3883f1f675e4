// How things are written, and the rewriting of a recipient file's text.
#include "retryq/DueNow.h"
#include "retryq/Format.h"

#include <gtest/gtest.h>

#include <array>
#include <sstream>

using namespace Retryq;

namespace {

TEST(Text, DurationsSizesAndResults) {
    // clang-format off
    const std::pair<std::string, const char*> kCases[]{
        {durationText(-1), "-"}, {durationText(0), "0s"}, {durationText(119), "119s"},
        {durationText(120), "2m"}, {durationText(7199), "119m"}, {durationText(7200), "2h"},
        {durationText(172799), "47h"}, {durationText(172800), "2d"},
        {sizeText(1023), "1023"}, {sizeText(1024), "1.0K"}, {sizeText(10240), "10K"},
        {sizeText(std::int64_t{5} << 40), "5.0T"}, {codeAndText(-1), "not tried yet"},
        {codeAndText(1001), "1001 Mail Server is down or unreachable"},
        {codeAndText(450), "450 Requested mail action not taken: mailbox unavailable"}};
    // clang-format on
    for (const auto& [text, expected] : kCases) {
        EXPECT_EQ(text, expected);
    }
}

TEST(Text, TableIsCutOnATerminalOnly) {
    const std::string text(200, 'x');
    // The terminal's width, 0 for none; the flexible column keeps a little of any.
    const std::tuple<int, std::string, std::string> kCases[]{{0, text, text},
                                                             {30, text, text.substr(0, 15) + ".."},
                                                             {30, "short", "short"},
                                                             {5, text, "xx.."}};
    for (const auto& [width, cell, shown] : kCases) {
        std::ostringstream out;
        Table table({out, width, false}, {{"LEAF", 6}, {"N", 3, true}, {"TEXT", 8, false, true}});
        const std::array<std::string, 3> cells{"a", "7", cell};
        table.row(cells);
        EXPECT_EQ(out.str(), "a         7  " + shown + "\n");
    }
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

} // namespace
