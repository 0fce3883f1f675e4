#include "fwall/enargv.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

struct Result {
    int count = 0;
    std::vector<std::string> words;
    bool operator==(const Result&) const = default;
};

// The text is in an allocation of exactly its size, so that reading past it is seen.
Result split(std::string_view source, int slots = 256, int size = 8192) {
    std::vector<char> text(source.begin(), source.end());
    text.push_back('\0');
    std::vector<char*> argv(static_cast<std::size_t>(slots), text.data());
    std::vector<char> out(static_cast<std::size_t>(size));
    Result result{enargv(text.data(), argv.data(), slots, out.data(), size), {}};
    for (std::size_t i = 0; argv[i] != nullptr; ++i) {
        result.words.emplace_back(argv[i]);
    }
    return result;
}

TEST(Split, GivesTheWords) {
    struct Case {
        const char* text;
        std::vector<std::string> words;
    };
    const Case cases[] = {// Blanks, commas, bytes that never reach an argument
                          {"", {}},
                          {" \t\v, ,", {}},
                          {"a\r\n\f b ", {"a", "b"}},
                          {", ,a, b", {"a,", "b"}},
                          {"a ,b", {"a", ",b"}},
                          {"x,y, z", {"x,y,", "z"}},
                          {"\x01\xc3\xa9,a\x7f\x80z", {"az"}},
                          // Quotes
                          {"'a b' 'c d'", {"a b", "c d"}},
                          {"\"it's\"x'y z'", {"it'sxy z"}},
                          {"\"\" ''", {"", ""}},
                          {"a '", {"a", ""}},
                          {"'a b", {"a b"}},
                          // Escapes
                          {"x\\ny z", {"x\ny", "z"}},
                          {"x\\n y", {"x\n y"}},
                          {"x\\t'y' z", {"x\t'y z"}},
                          {"x\\\\\\y", {"x\\\\y"}},
                          {"'a\\'' b'", {"a'' b"}},
                          {"\\x", {}},
                          {"\\", {}},
                          {"\\xab c", {"ab", "c"}},
                          {"a \\x b", {"a", " b"}},
                          {"a\\", {"a"}},
                          {"a\\n", {"a\n"}},
                          {"a\\\x80nb", {"a\nb"}}};
    for (const Case& c : cases) {
        EXPECT_EQ(split(c.text), (Result{static_cast<int>(c.words.size()), c.words})) << c.text;
    }
}

TEST(Split, NeverExceedsItsRoom) {
    struct Case {
        const char* text;
        int slots;
        int size;
        int count;
    };
    const Case cases[] = {{"a b", 9, 4, 2},  {"a b", 9, 3, 0},   {"a b", 9, 2, 0},
                          {"a b", 9, 1, -1}, {"a", 9, 1, 0},     {"a", 9, 0, 0},
                          {"'", 9, 0, -1},   {"a'b'", 9, 1, 0},  {"a ''", 9, 2, -1},
                          {"a", 1, 99, 0},   {"a b c", 3, 4, 2}, {"a b c d", 3, 99, 2}};
    for (const Case& c : cases) {
        const Result result = split(c.text, c.slots, c.size);
        EXPECT_EQ(result.count, c.count) << c.text << " in " << c.size;
        EXPECT_EQ(result.words.size(), static_cast<std::size_t>(std::max(c.count, 0)));
    }
    char* unchanged = nullptr;
    EXPECT_EQ(enargv(nullptr, &unchanged, 1, nullptr, 0), 0);
    EXPECT_EQ(enargv(nullptr, nullptr, 0, nullptr, 0), 0);
}

} // namespace
