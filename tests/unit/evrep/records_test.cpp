// The numbers, texts and values that records are made of.
#include "libevrep/EventContext.h"
#include "libevrep/eventNames.h"
#include "libevrep/utf.h"

#include <gtest/gtest.h>

#include <array>
#include <numeric>
#include <vector>

namespace {

template<class Look>
std::vector<std::int64_t> namedNumbers(Look look) {
    std::vector<std::int64_t> numbers;
    for (std::int32_t i = -10; i < 40000; ++i) {
        if (!look(i).empty())
            numbers.push_back(i);
    }
    return numbers;
}

std::int64_t sumOf(const std::vector<std::int64_t>& numbers) {
    return std::accumulate(numbers.begin(), numbers.end(), std::int64_t{0});
}

TEST(Numbers, AreCompleteAndKeepTheirValues) {
    const auto events = namedNumbers(eventName);
    EXPECT_EQ(events.size(), 390U);
    EXPECT_EQ(sumOf(events), 7792348);
    EXPECT_EQ(namedNumbers(reasonName).size(), 41U);
    EXPECT_EQ(sumOf(namedNumbers(reasonName)), 820);
    EXPECT_EQ(namedNumbers(propertyName).size(), 31U);
    EXPECT_EQ(sumOf(namedNumbers(propertyName)), 465);
    EXPECT_EQ(EVENT_DENIED_OTHER, 1510);
    EXPECT_EQ(EVENT_UI_LOGON_TIMEOUT, 4653);
    EXPECT_EQ(EVENT_CONFIG_BADCONFIG, 11502);
    EXPECT_EQ(EVENT_CI_VIRUS_FOUND, 18100);
    EXPECT_EQ(EVENT_IKE_SHARE_SHUTDOWN, 32101);
    EXPECT_EQ(EVENT_LAST, 32525);
    EXPECT_EQ(Reason_TimeOut, 30);
    EXPECT_EQ(EPROP_DET_ACTION, 29);
    EXPECT_EQ(eventName(32525), "EVENT_LAST");
    EXPECT_EQ(reasonName(24), "Reason_OpenError");
    EXPECT_EQ(propertyName(20), "EPROP_RECIPIENT");
}

TEST(HeaderString, KeepsBothForms) {
    IQELHeaderString text;
    EXPECT_STREQ(text.GetAnsiValue(), "");
    EXPECT_STREQ(text.GetWideValue(), L"");
    text.SetValue("a\xff");
    EXPECT_STREQ(text.GetWideValue(), L"a\u00ff");
    text.SetValue(L"\u00ff\u0100z");
    EXPECT_STREQ(text.GetAnsiValue(), "\xff?z");
    text.SetValue(static_cast<const char*>(nullptr));
    text.SetValue(static_cast<const wchar_t*>(nullptr));
    EXPECT_STREQ(text.GetWideValue(), L"\u00ff\u0100z");
}

class Utf8Handle {
public:
    Utf8Handle() : handle(iconv_open("UTF-8", "WCHAR_T")) {}
    ~Utf8Handle() { iconv_close(handle); }
    iconv_t handle;
};

TEST(Accessors, GiveTheFieldInFourForms) {
    const Utf8Handle utf8;
    GW_SCAN_CONTEXT scan;
    char buffer[4] = "old";
    std::size_t length = sizeof buffer;
    EXPECT_STREQ(scan.getAnsiUser("none"), "none");
    EXPECT_STREQ(scan.getWideUser(L"none"), L"none");
    EXPECT_FALSE(scan.getUTF8User(utf8.handle, buffer, length));
    scan.setUser(L"\u20ac");
    EXPECT_STREQ(scan.getAnsiUser("none"), "?");
    EXPECT_STREQ(scan.getWideUser(L"none"), L"\u20ac");
    ASSERT_TRUE(scan.getUTF8User(utf8.handle, buffer, length)); // exactly full with its terminator
    EXPECT_STREQ(buffer, "\xe2\x82\xac");
    EXPECT_EQ(length, 3U);
    scan.setUser(static_cast<const char*>(nullptr));
    EXPECT_STREQ(scan.getAnsiUser("none"), "?");
    EXPECT_STREQ(scan.getAnsiScanRule("other field"), "other field");
}

TEST(GetUtf8, RefusesWhatItCannotDo) {
    const Utf8Handle utf8;
    char buffer[8];
    std::size_t length = 1;
    EXPECT_FALSE(getUTF8(utf8.handle, L"a", buffer, length));
    length = 3; // no room for three bytes and the terminator
    EXPECT_FALSE(getUTF8(utf8.handle, L"\u20ac", buffer, length));
    EXPECT_EQ(length, 3U);
    length = sizeof buffer;
    EXPECT_FALSE(getUTF8(invalidIconv(), L"a", buffer, length));
    EXPECT_FALSE(getUTF8(utf8.handle, nullptr, buffer, length));
    EXPECT_FALSE(getUTF8(utf8.handle, L"a", nullptr, length));
    EXPECT_FALSE(getUTF8(utf8.handle, L"", buffer, length));
    const wchar_t surrogate[] = {0xD800, 0};
    EXPECT_FALSE(getUTF8(utf8.handle, surrogate, buffer, length));
}

TEST(CodePage932, BecomesWide) {
    const CDBCS932ToWide japanese;
    wchar_t buffer[4];
    std::size_t length = 4;
    ASSERT_TRUE(japanese.Convert("\x93\xfa\x96\x7b"
                                 "a",
                                 buffer, length));
    EXPECT_STREQ(buffer, L"\u65e5\u672c"
                         L"a");
    EXPECT_EQ(length, 3U);
    EXPECT_FALSE(japanese.Convert("\x93\xfa\x96\x7b"
                                  "a",
                                  buffer, length)); // no room now
    length = 4;
    EXPECT_FALSE(japanese.Convert("\x93", buffer, length)); // half a character
}

struct Utf8Case {
    std::string_view text;
    std::wstring_view wide; // empty for no valid text
};

TEST(Utf8, FollowsRfc3629) {
    const Utf8Case cases[] = {
        {"a\x7f", L"a\x7f"},
        {"\xc2\x80\xdf\xbf", L"\u0080\u07ff"},
        {"\xe0\xa0\x80\xed\x9f\xbf", L"\u0800\ud7ff"},
        {"\xee\x80\x80\xf0\x90\x80\x80", L"\ue000\U00010000"},
        {"\xf4\x8f\xbf\xbf", L"\U0010ffff"},
        {"\x80", {}},
        {"\xc1\xbf", {}},
        {"\xe0\x9f\xbf", {}},
        {"\xf0\x8f\xbf\xbf", {}},
        {"\xed\xa0\x80", {}},
        {"\xf4\x90\x80\x80", {}},
        {"\xf8\x88\x80\x80\x80", {}},
        {"a\xc2", {}},
        {"\xe2\x82z", {}},
    };
    for (const Utf8Case& one : cases) {
        const bool valid = !one.wide.empty();
        std::array<wchar_t, 8> wide{};
        std::array<char, 16> narrow{};
        EXPECT_EQ(utf8_valid(one.text), valid);
        const auto wideLength = utf8_to_ucs4(one.text, wide);
        ASSERT_EQ(wideLength.has_value(), valid) << one.text;
        if (!valid)
            continue;
        EXPECT_EQ(std::wstring_view(wide.data(), *wideLength), one.wide);
        const auto length = ucs4_to_utf8(one.wide, narrow);
        ASSERT_TRUE(length);
        EXPECT_EQ(std::string_view(narrow.data(), *length), one.text);
        EXPECT_FALSE(ucs4_to_utf8(one.wide, std::span(narrow).first(*length - 1)));
        EXPECT_FALSE(utf8_to_ucs4(one.text, std::span(wide).first(*wideLength - 1)));
    }
    std::array<char, 8> narrow{};
    for (const wchar_t bad : {0xD800, 0xDFFF, 0x110000, -1})
        EXPECT_FALSE(ucs4_to_utf8({&bad, 1}, narrow));
}

TEST(Texts, AreClassified) {
    EXPECT_TRUE(Is7BitData("\x7f"));
    EXPECT_FALSE(Is7BitData("a\x80"));
    EXPECT_TRUE(IsRFC2047Encoded("=?a?b?c?="));
    EXPECT_FALSE(IsRFC2047Encoded("=?a?b?"
                                  "?="));
    EXPECT_FALSE(IsRFC2047Encoded("=?a?b?c?=x"));
    IQELHeaderString header;
    EXPECT_FALSE(IsHandledByHeaderString("=?utf-8?q?x?=", header));
    EXPECT_STREQ(header.GetAnsiValue(), "=?utf-8?q?x?=");
}

TEST(PropertyBag, ConvertsValuesAndReplacesThem) {
    CPropertyBag bag;
    EXPECT_STREQ(static_cast<const char*>(bag), "Default Property Bag");
    bag.Set(EPROP_PORT, 25);
    bag.Set(EPROP_SIZE, 0xffffffffU);
    bag.Set(EPROP_HOST, "-12 apples");
    bag.Set(EPROP_COUNT, "99999999999");
    bag.Set(EPROP_SERVER, L"\u0100");
    std::string text;
    std::wstring wide;
    std::int32_t number = 0;
    long wideNumber = 0;
    EXPECT_TRUE(bag.Get(EPROP_PORT, text));
    EXPECT_EQ(text, "25");
    EXPECT_TRUE(bag.Get(EPROP_SIZE, wide));
    EXPECT_EQ(wide, L"-1");
    EXPECT_EQ(bag.FindIndex(EPROP_SIZE)->GetType(), ST_INT);
    EXPECT_TRUE(bag.Get(EPROP_HOST, number));
    EXPECT_EQ(number, -12);
    EXPECT_TRUE(bag.Get(EPROP_COUNT, wideNumber));
    EXPECT_EQ(wideNumber, 2147483647L);
    EXPECT_TRUE(bag.Get(EPROP_SERVER, text));
    EXPECT_EQ(text, "?");
    EXPECT_FALSE(bag.Get(EPROP_RULE, number));
    EXPECT_EQ(number, -12);
    EXPECT_EQ(bag.GetElementNumber(0)->m_nIndex, EPROP_SERVER);
    EXPECT_EQ(bag.GetElementNumber(5), nullptr);
    const CPropertyBag copied = bag;
    bag.Set(EPROP_PORT, "smtp");
    bag.Set(EPROP_PORT, static_cast<const char*>(nullptr)); // changes nothing
    EXPECT_EQ(bag.Count(), 5U);
    EXPECT_EQ(bag.FindIndex(EPROP_PORT)->GetType(), ST_STRING);
    EXPECT_EQ(copied.FindIndex(EPROP_PORT)->GetType(), ST_INT);
    bag.Remove(EPROP_PORT);
    EXPECT_EQ(bag.Count(), 4U);
}

TEST(PairList, SortsByBytesAndKeepsTheOrderOfEquals) {
    StringValuePairList list;
    for (const char* name : {"b", "\xe9", "B", "b"})
        list.Add(name, static_cast<std::int32_t>(list.size()));
    const auto counts = [&list] {
        std::vector<std::int32_t> result;
        for (const auto& pair : list)
            result.push_back(pair->m_lCount);
        return result;
    };
    list.SortAscending();
    EXPECT_EQ(counts(), (std::vector<std::int32_t>{2, 0, 3, 1}));
    list.SortDescending();
    EXPECT_EQ(counts(), (std::vector<std::int32_t>{1, 0, 3, 2}));
}

} // namespace
