#include "fwall/hexesc.h"

#include <gtest/gtest.h>

namespace {

using namespace std::string_literals;

TEST(Escape, WritesTheLongestWholePrefixAndTellsTheFullLength) {
    struct Case {
        const char* source;
        const char* further;
        std::size_t size;
        std::size_t full;
        const char* expected;
    };
    const Case cases[] = {{"a\xc8%", nullptr, 16, 7, "a%C8%25"},
                          {"\x1f \x7e\x7f", nullptr, 16, 8, "%1F ~%7F"},
                          {"a,b;", nullptr, 16, 4, "a,b;"},
                          {"a,b;", ",;", 16, 8, "a%2Cb%3B"},
                          {"a\nb", nullptr, 3, 5, "a"},
                          {"\n", nullptr, 4, 3, "%0A"},
                          {"\n", nullptr, 3, 3, ""},
                          {"abc", nullptr, 3, 3, "ab"},
                          {"abc", nullptr, 1, 3, ""},
                          {nullptr, ",", 4, 0, ""},
                          {"ab", nullptr, 0, 2, "################"}};
    for (const Case& c : cases) {
        std::string out(16, '#');
        EXPECT_EQ(hexescNonAsciiPlus(out.data(), c.source, c.size, c.further), c.full);
        EXPECT_STREQ(out.c_str(), c.expected);
        EXPECT_EQ(out.find_first_not_of('#', c.size), std::string::npos) << "wrote past its size";
    }
}

TEST(Printable, IsBoundedAndShowsTheCut) {
    EXPECT_EQ(printable("a\0b\r\n"s, 100), "a%00b%0D%0A");
    EXPECT_EQ(printable("abcdef", 6), "abcdef");
    EXPECT_EQ(printable("abcdefg", 6), "abc...");
    EXPECT_EQ(printable("ab\n\n", 7), "ab..."); // never half an escape
    EXPECT_EQ(printable("abcd", 2), "..");
    EXPECT_EQ(printable("a", 0), "");
}

} // namespace
