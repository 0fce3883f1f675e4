#include "fwall/ruletable.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace std::string_literals;

std::string parsed(const std::string& line) {
    std::vector<char> bytes(line.begin(), line.end());
    RuleLine rule;
    const RuleLine::Kind kind = rule.parse(bytes, "vorn");
    if (kind != RuleLine::Kind::Record) {
        return kind == RuleLine::Kind::Skipped ? "skipped" : cfg_fault_text(rule.fault());
    }
    std::string text = std::to_string(rule.flags()) + " " + std::string(rule.keyword()) + ":";
    for (const char* argument : rule.arguments()) {
        text.append("[").append(argument).append("]");
    }
    return text;
}

TEST(RuleLine, IsTakenApart) {
    std::string many = "*: a";
    std::string first255 = "0 a:";
    for (int i = 0; i < 300; ++i) {
        many += " w";
        first255 += i < 255 ? "[w]" : "";
    }
    const struct {
        std::string line;
        std::string expected;
    } cases[] = {// Who is meant
                 {"# vorn: a b\n", "skipped"},
                 {" # no colon\n", "malformed"},
                 {" # colon:\n", "skipped"},
                 {" \t\n", "skipped"},
                 {"\r\n", "malformed"},
                 {"other a b\n", "malformed"},
                 {"other:\n", "skipped"},
                 {"Vorn: a b\n", "skipped"},
                 {"vor,vornx: a b\n", "skipped"},
                 {": a b\n", "skipped"},
                 {"x ,\tvorn\t:a b:c\n", "0 a:[b:c]"},
                 {"*:a b\n", "0 a:[b]"},
                 {"x*: a b\n", "skipped"},
                 // Keywords
                 {"vorn: timeout\n", "missing parameter"},
                 {"vorn: timeout \n", "missing parameter"},
                 {"vorn: timeout  \n", "0 timeout:"},
                 {"vorn: timeout\t30\n", "0 timeout:[30]"},
                 {"vorn:\n", "missing parameter"},
                 {"vorn: \t \n", "missing parameter"},
                 {"*: deny-relay a\n", "2 relay:[a]"},
                 {"*: permit-relay a\n", "1 relay:[a]"},
                 {"*: absorb-deny-x a\n", "4 deny-x:[a]"},
                 {"*: Deny-x a\n", "0 Deny-x:[a]"},
                 // Any bytes
                 {"*: a b", "too long"},
                 {"", "too long"},
                 {"*: a b\0c\x80\n"s, "0 a:[bc]"},
                 {"\0*: a b\n"s, "skipped"},
                 {many + "\n", first255}};
    for (const auto& c : cases) {
        EXPECT_EQ(parsed(c.line), c.expected) << c.line;
    }
}

} // namespace
