// The texts and values that records are made of.
#include "libevrep/EventContext.h"
#include "libevrep/utf.h"

#include <gtest/gtest.h>

#include <array>

namespace {

TEST(Accessors, GiveTheFieldInFourForms) {
    const iconv_t utf8 = iconv_open("UTF-8", "WCHAR_T");
    GW_SCAN_CONTEXT scan;
    char buffer[4] = "old";
    std::size_t length = sizeof buffer;
    EXPECT_STREQ(scan.getAnsiUser("none"), "none");
    EXPECT_STREQ(scan.getWideUser(L"none"), L"none");
    EXPECT_FALSE(scan.getUTF8User(utf8, buffer, length));
    scan.setUser("a\xff");
    scan.setUser(static_cast<const char*>(nullptr));
    scan.setUser(static_cast<const wchar_t*>(nullptr));
    EXPECT_STREQ(scan.getWideUser(L""), L"a\u00ff");
    scan.setUser(L"\u00ff\u0100z");
    EXPECT_STREQ(scan.getAnsiUser(""), "\xff?z");
    scan.setUser(L"\u20ac");
    EXPECT_STREQ(scan.getWideUser(L"none"), L"\u20ac");
    ASSERT_TRUE(scan.getUTF8User(utf8, buffer, length)); // exactly full with its terminator
    EXPECT_STREQ(buffer, "\xe2\x82\xac");
    EXPECT_EQ(length, 3U);

    const wchar_t surrogate[] = {0xD800, 0};
    EXPECT_FALSE(getUTF8(utf8, L"\u20ac", buffer, length)); // no room for the terminator now
    EXPECT_FALSE(getUTF8(utf8, surrogate, buffer, length));
    EXPECT_FALSE(getUTF8(invalidIconv(), L"a", buffer, length));
    EXPECT_FALSE(getUTF8(utf8, nullptr, buffer, length));
    EXPECT_FALSE(getUTF8(utf8, L"a", nullptr, length));
    EXPECT_EQ(length, 3U);
    EXPECT_FALSE(getUTF8(utf8, L"a", buffer, length = 1));
    iconv_close(utf8);
}

TEST(CodePage932, BecomesWide) {
    const CDBCS932ToWide japanese;
    wchar_t buffer[4];
    std::size_t length = 4;
    ASSERT_TRUE(japanese.Convert("\x93\xfa\x96\x7b"
                                 "a",
                                 buffer, length));
    EXPECT_EQ(std::wstring(buffer) + std::to_wstring(length), L"\u65e5\u672c"
                                                              L"a3");
    EXPECT_FALSE(japanese.Convert("\x93\xfa\x96\x7b"
                                  "a",
                                  buffer, length));             // no room now
    EXPECT_FALSE(japanese.Convert("\x93", buffer, length = 4)); // half a character
}

TEST(Utf8, FollowsRfc3629) {
    // Without a wide form: no valid text.
    // clang-format off
    const std::pair<std::string_view, std::wstring_view> cases[] = {
        {"a\x7f", L"a\x7f"}, {"\xc2\x80\xdf\xbf", L"\u0080\u07ff"},
        {"\xe0\xa0\x80\xed\x9f\xbf", L"\u0800\ud7ff"}, {"\xf4\x8f\xbf\xbf", L"\U0010ffff"},
        {"\xee\x80\x80\xf0\x90\x80\x80", L"\ue000\U00010000"},
        {"\x80", {}}, {"\xc1\xbf", {}}, {"\xe0\x9f\xbf", {}}, {"\xf0\x8f\xbf\xbf", {}},
        {"\xed\xa0\x80", {}}, {"\xf4\x90\x80\x80", {}}, {"\xf8\x88\x80\x80\x80", {}},
        {"a\xc2", {}}, {"\xe2\x82z", {}}};
    // clang-format on
    std::array<wchar_t, 8> toWide{};
    std::array<char, 16> toText{};
    for (const auto& [text, wide] : cases) {
        const bool valid = !wide.empty();
        EXPECT_EQ(utf8_valid(text), valid);
        ASSERT_EQ(utf8_to_ucs4(text, toWide), valid ? std::optional(wide.size()) : std::nullopt);
        ASSERT_EQ(ucs4_to_utf8(wide, toText), valid ? text.size() : 0);
        EXPECT_TRUE(!valid || (std::wstring_view(toWide.data(), wide.size()) == wide &&
                               std::string_view(toText.data(), text.size()) == text));
        EXPECT_FALSE(valid && ucs4_to_utf8(wide, std::span(toText).first(text.size() - 1)));
        EXPECT_FALSE(valid && utf8_to_ucs4(text, std::span(toWide).first(wide.size() - 1)));
    }
    for (const wchar_t bad : {0xD800, 0xDFFF, 0x110000, -1})
        EXPECT_FALSE(ucs4_to_utf8({&bad, 1}, toText));
}

TEST(Texts, AreClassified) {
    EXPECT_TRUE(Is7BitData("\x7f") && !Is7BitData("a\x80"));
    EXPECT_TRUE(IsRFC2047Encoded("=?a?b?c?="));
    EXPECT_FALSE(IsRFC2047Encoded("=?a?bc?=") || IsRFC2047Encoded("=?a?b?c?=x"));
    IQELHeaderString header;
    EXPECT_FALSE(IsHandledByHeaderString("=?utf-8?q?x?=", header));
    EXPECT_STREQ(header.GetAnsiValue(), "=?utf-8?q?x?=");
}

TEST(PropertyBag, ConvertsValuesAndReplacesThem) {
    CPropertyBag bag;
    bag.Set(EPROP_SIZE, 0xffffffffU);
    bag.Set(EPROP_HOST, "-12 apples");
    bag.Set(EPROP_COUNT, "99999999999");
    bag.Set(EPROP_SERVER, L"\u0100");
    std::string text;
    std::wstring wide;
    std::int32_t number = 0;
    long large = 0;
    EXPECT_TRUE(bag.Get(EPROP_SIZE, wide) && wide == L"-1");
    EXPECT_TRUE(bag.Get(EPROP_HOST, number) && number == -12);
    EXPECT_TRUE(bag.Get(EPROP_COUNT, large) && large == 2147483647L);
    EXPECT_TRUE(bag.Get(EPROP_SERVER, text) && text == "?");
    EXPECT_TRUE(!bag.Get(EPROP_RULE, number) && number == -12);
    EXPECT_EQ(bag.GetElementNumber(0)->m_nIndex, EPROP_SERVER);
    EXPECT_EQ(bag.GetElementNumber(4), nullptr);
    bag.Set(EPROP_HOST, 25);
    bag.Set(EPROP_SIZE, static_cast<const char*>(nullptr)); // changes nothing
    EXPECT_EQ(bag.FindIndex(EPROP_HOST)->GetType(), ST_INT);
    EXPECT_EQ(bag.FindIndex(EPROP_SIZE)->GetType(), ST_INT);
    bag.Remove(EPROP_HOST);
    EXPECT_EQ(bag.Count(), 3U);
}

TEST(PairList, SortsByBytesAndKeepsTheOrderOfEquals) {
    StringValuePairList list;
    for (const char* name : {"b", "\xe9", "B", "b"})
        list.Add(name, static_cast<std::int32_t>(list.size()));
    std::string order;
    list.SortAscending();
    for (const auto& pair : list)
        order += std::to_string(pair->m_lCount);
    list.SortDescending();
    for (const auto& pair : list)
        order += std::to_string(pair->m_lCount);
    EXPECT_EQ(order, "20311032");
}

} // namespace
