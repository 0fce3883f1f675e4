#include "email/DeliveryLog.h"

#include "engine_support.h"

#include <gtest/gtest.h>

namespace {

using Email::LogFields;
using Email::LogLine;

struct LineCase {
    LogLine line;
    LogFields fields;
    const char* text;
};
class Lines : public testing::TestWithParam<LineCase> {};
TEST_P(Lines, HoldTheirFieldsInOrderAndLeaveOutTheMissing) {
    const std::string line = formatLine(GetParam().line, GetParam().fields);
    EXPECT_EQ(line.substr(line.find(' ') + 1), GetParam().text);
}
INSTANTIATE_TEST_SUITE_P(
    Shapes, Lines,
    testing::Values(
        LineCase{LogLine::Delivered,
                 {.message = "/q/dir/m1",
                  .sender = "<s@a.test>",
                  .recipient = "r@b.test",
                  .relay = IPaddress(0x0100007FU),
                  .code = 250},
                 "delivered msg=m1 from=<s@a.test> to=<r@b.test> relay=127.0.0.1 code=250 "
                 "text=Accepted"},
        LineCase{LogLine::Deferred,
                 {.message = "m1", .sender = "", .recipient = "<r@b.test>", .code = -1},
                 "deferred msg=m1 from=<> to=<r@b.test> code=-1 text=Not tried yet"},
        LineCase{LogLine::Returned, {.code = 571}, "returned code=571 text=Unknown SMTP code 571"},
        LineCase{LogLine::TextOpenFailed,
                 {.message = "m1", .error = 2},
                 "text-open-failed msg=m1 error=2 (No such file or directory) action=delete"},
        LineCase{LogLine::RecipientsUnreadable,
                 {.message = "m1", .error = 0},
                 "recipients-unreadable msg=m1 error=0 (unusable content) action=delete"},
        LineCase{LogLine::TraceUnableToOpen,
                 {.args = {"/q/m1.rmd", "13"}},
                 "Unable to open '/q/m1.rmd' error '13'"},
        LineCase{LogLine::NoGreeting, {}, "no-greeting"}));

TEST(Lines, NothingFromOutsideStaysRawOrLong) {
    const std::string hostile = "<a\n<27>b%s\xff" + std::string(5000, 'x') + ">";
    const std::string line =
        formatLine(LogLine::Deferred,
                   {.message = hostile, .sender = hostile, .recipient = hostile, .code = 450});
    EXPECT_EQ(line.find_first_of("\n\xff"), std::string::npos);
    EXPECT_NE(line.find("from=<a%0A<27>b%25s%FFxxx"), std::string::npos);
    EXPECT_LT(line.size(), 1000U);
}

// The line of such a row, as far as the settings let it through.
int written(const char* text) {
    for (const Email::LogRow& row : Email::logTable()) {
        if (std::string_view(row.text).starts_with(text)) {
            Email::writeLine(row.line, {});
        }
    }
    return linesWith(text);
}

TEST(Lines, OnlyOutcomesAreSilencedAndOnlyProgressNeedsDebugMode) {
    const ScratchSpool spool;
    EXPECT_EQ(written("connected"), 0);
    EXPECT_EQ(written("returned"), 1);
    mailscanGlobals::mailLogEnable = false;
    DebugMode = 1;
    EXPECT_EQ(written("connected"), 1);
    loggedLines.clear();
    written("");
    EXPECT_EQ(loggedLines.size(), Email::logTable().size() - 4);
    EXPECT_EQ(linesWith("delivered") + linesWith("returned"), 0);
}

TEST(LogLinesPage, HasEveryLine) {
    const std::string page = contents(LOG_LINES_PAGE);
    for (const Email::LogRow& row : Email::logTable()) {
        EXPECT_NE(page.find("`%05d " + std::string(row.text) + "`"), std::string::npos) << row.text;
    }
}

} // namespace
