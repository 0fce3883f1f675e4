// How things are written, and the rewriting of a recipient file's text.
#include "retryq/Format.h"
#include "retryq/ListText.h"
#include "retryq/Table.h"

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
        {codeAndText(250), "250 Unexpected reply"},
        {codeAndText(1001), "1001 Mail Server is down or unreachable"},
        {codeAndText(450), "450 Requested mail action not taken: mailbox unavailable"}};
    // clang-format on
    for (const auto& [text, expected] : kCases) {
        EXPECT_EQ(text, expected);
    }
}

TEST(Text, TableFitsATerminalAndIsWholeInAPipe) {
    using Fit = Table::Fit;
    const std::vector<std::vector<std::string>> rows{{"a", "7", "one two three", "0123456789"}};
    // The terminal's width, 0 for none, and what is printed behind the header.
    const std::pair<int, const char*> kCases[]{
        {0, "a    7  one two three  0123456789\n"},
        {200, "a    7  one two three  0123456789\n"},
        {27, "a    7  one two   0123456..\n        three\n"},
        {5, "a    7  one   01..\n        two\n        thre\n        e\n"}};
    for (const auto& [width, shown] : kCases) {
        std::ostringstream out;
        Table table({out, width, false}, {{"L", 1},
                                          {"N", 3, true},
                                          {"WORD", 4, false, Fit::Wrap},
                                          {"TEXT", 4, false, Fit::Cut}});
        table.print(rows);
        EXPECT_EQ(out.str().substr(out.str().find('\n') + 1), shown) << width;
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
