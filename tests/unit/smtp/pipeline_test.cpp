// The commands that leave ahead of their replies, driven as the client drives it.
#include "email/smtp/Pipeline.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

using Email::Pipeline;

namespace {

const std::string kMail = "mail from: <s@a>\r\n";

std::string rcpt(const std::string& text) {
    return "RCPT TO: " + text + "\r\n";
}

// How many commands each write took, when all go through in order; each write is checked for its
// bytes.
std::vector<long> writes(const std::vector<std::string>& recipients) {
    std::vector<const char*> texts;
    std::vector<std::string> lines{kMail};
    for (const std::string& recipient : recipients) {
        texts.push_back(recipient.c_str());
        lines.push_back(rcpt(recipient));
    }
    lines.emplace_back("DATA\r\n");
    Pipeline pipeline;
    pipeline.plan(texts);
    std::vector<long> counts;
    std::string all;
    std::string sent;
    for (const std::string& line : lines) {
        const std::string_view due = pipeline.due(line).value();
        if (!due.empty()) {
            EXPECT_LE(due.size(), Pipeline::kWindowBytes);
            counts.push_back(std::ranges::count(due, '\n'));
        }
        sent += due;
        all += line;
    }
    EXPECT_EQ(sent, all);
    EXPECT_FALSE(pipeline.ahead());
    return counts;
}

} // namespace

TEST(Pipeline, WritesNoMoreAheadThanAWindow) {
    const struct {
        std::size_t recipients;
        std::size_t length;
        std::vector<long> writes;
    } cases[] = {{1, 9, {3}},       {98, 9, {100}},
                 {99, 9, {100, 1}}, {250, 9, {100, 100, 52}},
                 {9, 1000, {9, 2}}, {20, 1000, {9, 8, 5}}};
    for (const auto& [recipients, length, expected] : cases) {
        EXPECT_EQ(writes(std::vector(recipients, std::string(length, 'u'))), expected);
    }
}

TEST(Pipeline, IsNotMistakenAboutWhatIsUnderWay) {
    Pipeline pipeline;
    EXPECT_EQ(pipeline.due("RSET\r\n"), "RSET\r\n"); // without a plan
    pipeline.plan({"<a>", "<two\r\nlines>", "<b>"});
    EXPECT_EQ(pipeline.due(kMail), kMail + rcpt("<a>") + rcpt("<b>") + "DATA\r\n");
    EXPECT_EQ(pipeline.due(rcpt("<b>")), std::nullopt);
    EXPECT_EQ(pipeline.due(rcpt("<a>")), "");
    EXPECT_TRUE(pipeline.ahead());
    EXPECT_FALSE(pipeline.skip());
    EXPECT_TRUE(pipeline.skip());
    EXPECT_EQ(pipeline.due("QUIT\r\n"), "QUIT\r\n"); // behind the plan
}
