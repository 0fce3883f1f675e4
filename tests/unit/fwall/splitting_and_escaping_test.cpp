// What takes text from outside apart or makes it safe.
#include "fwall/enargv.h"
#include "fwall/hexesc.h"
#include "fwall/ruletable.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

namespace {

using namespace std::string_literals;

// clang-format off
using Text = const char*;

// Source, further bytes to escape, room; the whole length, what stands in the room.
const std::tuple<Text, Text, std::size_t, std::size_t, Text> kEscaped[] = {
    {"a\xc8%", nullptr, 16, 7, "a%C8%25"}, {"\x1f \x7e\x7f", nullptr, 16, 8, "%1F ~%7F"},
    {"a,b;", nullptr, 16, 4, "a,b;"}, {"a,b;", ",;", 16, 8, "a%2Cb%3B"}, {"a\nb", nullptr, 3, 5, "a"},
    {"\n", nullptr, 4, 3, "%0A"}, {"\n", nullptr, 3, 3, ""}, {"abc", nullptr, 3, 3, "ab"},
    {"abc", nullptr, 1, 3, ""}, {nullptr, ",", 4, 0, ""}, {"ab", nullptr, 0, 2, "################"}};

const std::tuple<std::string, std::size_t, std::string> kPrintable[] = {
    {"a\0b\r\n"s, 100, "a%00b%0D%0A"}, {"abcdef", 6, "abcdef"}, {"abcdefg", 6, "abc..."},
    {"ab\n\n", 7, "ab..."}, {"abcd", 2, ".."}, {"a", 0, ""}};

// The words, then the count.
const std::pair<Text, Text> kSplit[] = {
    // Blanks, commas, bytes that never reach an argument
    {"", "0"}, {" \t\v, ,", "0"}, {"a\r\n\f b ", "[a][b]2"}, {", ,a, b", "[a,][b]2"},
    {"a ,b", "[a][,b]2"}, {"x,y, z", "[x,y,][z]2"}, {"\x01\xc3\xa9,a\x7f\x80z", "[az]1"},
    // Quotes
    {"'a b' 'c d'", "[a b][c d]2"}, {"\"it's\"x'y z'", "[it'sxy z]1"}, {"\"\" ''", "[][]2"},
    {"a '", "[a][]2"}, {"'a b", "[a b]1"},
    // Escapes
    {"x\\ny z", "[x\ny][z]2"}, {"x\\n y", "[x\n y]1"}, {"x\\t'y' z", "[x\t'y z]1"},
    {"x\\\\\\y", "[x\\\\y]1"}, {"'a\\'' b'", "[a'' b]1"}, {"\\x", "0"}, {"\\", "0"},
    {"\\xab c", "[ab][c]2"}, {"a \\x b", "[a][ b]2"}, {"a\\", "[a]1"}, {"a\\n", "[a\n]1"},
    {"a\\\x80nb", "[a\nb]1"}};

const std::tuple<Text, int, int, Text> kNarrow[] = { // text, slots, size
    {"a b", 9, 4, "[a][b]2"}, {"a b", 9, 3, "0"}, {"a b", 9, 2, "0"}, {"a b", 9, 1, "-1"},
    {"a", 9, 1, "0"}, {"a", 9, 0, "0"}, {"'", 9, 0, "-1"}, {"a'b'", 9, 1, "0"}, {"a ''", 9, 2, "-1"},
    {"a", 1, 99, "0"}, {"a b c", 3, 4, "[a][b]2"}, {"a b c d", 3, 99, "[a][b]2"}};

// Flags, keyword and arguments, or what becomes of the line.
const std::pair<std::string, std::string> kRules[] = {
    // Who is meant
    {"# vorn: a b\n", "skipped"}, {" # no colon\n", "malformed"}, {" # colon:\n", "skipped"},
    {" \t\n", "skipped"}, {"\r\n", "malformed"}, {"other a b\n", "malformed"}, {"other:\n", "skipped"},
    {"Vorn: a b\n", "skipped"}, {"vor,vornx: a b\n", "skipped"}, {": a b\n", "skipped"},
    {"x ,\tvorn\t:a b:c\n", "0 a:[b:c]"}, {"*:a b\n", "0 a:[b]"}, {"x*: a b\n", "skipped"},
    // Keywords
    {"vorn: timeout\n", "missing parameter"}, {"vorn: timeout \n", "missing parameter"},
    {"vorn: timeout  \n", "0 timeout:"}, {"vorn: timeout\t30\n", "0 timeout:[30]"},
    {"vorn:\n", "missing parameter"}, {"vorn: \t \n", "missing parameter"},
    {"*: deny-relay a\n", "2 relay:[a]"}, {"*: permit-relay a\n", "1 relay:[a]"},
    {"*: absorb-deny-x a\n", "4 deny-x:[a]"}, {"*: Deny-x a\n", "0 Deny-x:[a]"},
    // Any bytes
    {"*: a b", "too long"}, {"", "too long"}, {"*: a b\0c\x80\n"s, "0 a:[bc]"}, {"\0*: a b\n"s, "skipped"}};
// clang-format on

std::string bracketed(char* const* words, std::size_t count) {
    std::string text;
    for (std::size_t i = 0; i < count && words[i] != nullptr; ++i) {
        text.append("[").append(words[i]).append("]");
    }
    return text;
}

// The text is in an allocation of exactly its size, so that reading past it is seen.
std::string split(const char* source, int slots = 256, int size = 8192) {
    std::vector<char> text(source, source + std::string_view(source).size() + 1);
    std::vector<char*> argv(static_cast<std::size_t>(slots), text.data());
    std::vector<char> out(static_cast<std::size_t>(size));
    const int count = enargv(text.data(), argv.data(), slots, out.data(), size);
    return bracketed(argv.data(), argv.size()) + std::to_string(count);
}

std::string parsed(const std::string& line) {
    std::vector<char> bytes(line.begin(), line.end());
    RuleLine rule;
    const RuleLine::Kind kind = rule.parse(bytes, "vorn");
    if (kind != RuleLine::Kind::Record) {
        return kind == RuleLine::Kind::Skipped ? "skipped" : cfg_fault_text(rule.fault());
    }
    return std::to_string(rule.flags()) + " " + std::string(rule.keyword()) + ":" +
           bracketed(rule.arguments().data(), rule.arguments().size());
}

TEST(Escape, WritesTheLongestWholePrefixAndTellsWhatIsMissing) {
    for (const auto& [source, further, size, full, text] : kEscaped) {
        std::string out(16, '#');
        EXPECT_EQ(hexescNonAsciiPlus(out.data(), source, size, further), full);
        EXPECT_STREQ(out.c_str(), text);
        EXPECT_EQ(out.find_first_not_of('#', size), std::string::npos) << "wrote past its size";
    }
    for (const auto& [source, size, text] : kPrintable) {
        EXPECT_EQ(printable(source, size), text);
    }
}

TEST(Split, GivesTheWordsAndNeverExceedsItsRoom) {
    for (const auto& [text, words] : kSplit) {
        EXPECT_EQ(split(text), words) << text;
    }
    for (const auto& [text, slots, size, words] : kNarrow) {
        EXPECT_EQ(split(text, slots, size), words) << text << " in " << size;
    }
    char* unchanged = nullptr;
    EXPECT_EQ(enargv(nullptr, &unchanged, 1, nullptr, 0), 0);
    EXPECT_EQ(enargv(nullptr, nullptr, 0, nullptr, 0), 0);
}

TEST(RuleLine, IsTakenApart) {
    for (const auto& [line, expected] : kRules) {
        EXPECT_EQ(parsed(line), expected) << line;
    }
}

} // namespace
