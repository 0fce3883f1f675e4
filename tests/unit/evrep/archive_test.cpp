// The bytes of every type, written by hand, and how reading treats what is not as it should be.
#include "support.h"

#include "libevrep/debugOut.h"

#include <gtest/gtest.h>

#include <functional>

namespace {

StringValuePairList pairs() {
    StringValuePairList list;
    list.Add("zip", 7);
    list.Add("", -1);
    return list;
}

const GW_FILTER filter{0x80000001, 2, {EVENT_LAST}, {}};

CPropertyBag bag() {
    CPropertyBag result("B", 3);
    result.Set(EPROP_LINE_NUMBER, 258);
    return result;
}

// `value` is written as `bytes`, and those are read as `value` again.
template<class Value>
void standsFor(const Bytes& bytes, const Value& value) {
    EXPECT_EQ(archived(value), bytes);
    Value read{};
    EXPECT_TRUE(readAll(bytes, read) && read == value);
}

// What the fields then hold is seen in the listing of the same events (evdump_test.cpp).
TEST(GoldenBytes, OfEventsAreReadAndWrittenAgain) {
    GW_EVENT event;
    for (const char* name : {"event0", "event1", "event3", "event7", "event2"}) {
        EXPECT_TRUE(readAll(type(name), event)) << name;
        EXPECT_EQ(archived(event), type(name));
    }
    const GW_COMMON_CONTEXT& c = event.m_CommonContext;
    const GW_EVENT_CONTEXT& e = event.m_EventContext;
    const GW_SCAN_CONTEXT& s = *event.getScanContext();
    std::string texts;
    for (const char* text :
         {c.getAnsiComputerName("-"), c.getAnsiIPAddress("-"), c.getAnsiMacAddress("-"),
          c.getAnsiOSPlatform("-"), c.getAnsiOSVersion("-"), e.getAnsiSubSystemName("-"),
          e.getAnsiSubSystemVersion("-"), s.getAnsiDatVersion("-"), s.getAnsiEngineVersion("-"),
          s.getAnsiScanRule("-"), s.getAnsiScanRuleType("-"), s.getAnsiScannedObject("-")})
        texts += text;
    EXPECT_EQ(texts, "cimpvn-12?-x");
}

TEST(GoldenBytes, AreWrittenAndReadBack) {
    standsFor(type("pairs"), pairs());
    standsFor(type("filter"), filter.Copy());
    standsFor(hex("fe ff ff ff"), int{-2});
    standsFor(hex("04 03 02 81"), 0x81020304U);
    standsFor(hex("fe ff"), short{-2});
    standsFor(hex("02 81"), static_cast<unsigned short>(0x8102));
    standsFor(hex("fe ff ff ff"), -2L);
    standsFor(hex("fe ff ff ff"), 0xfffffffeUL);
    standsFor(hex("e9"), '\xe9');
    standsFor(hex("e9"), static_cast<unsigned char>(0xe9));
    standsFor(hex("03 00 00 00 61 00 62"), std::string("a\0b", 3));
    standsFor(hex("0c 00 00 00 61 00 00 00 ac 20 00 00 ff ff 10 00"),
              std::wstring(L"a\u20ac\U0010ffff"));
    EXPECT_EQ(archived(~0UL), hex("ff ff ff ff"));
    EXPECT_EQ(archived(EVENT_SYS_ERROR_DOWN), hex("bd 34 00 00"));
    EXPECT_EQ(archived(static_cast<const char*>(nullptr)), hex("00 00 00 00"));
    EXPECT_EQ(archived(static_cast<const wchar_t*>(L"\u20ac")), hex("04 00 00 00 ac 20 00 00"));
}

TEST(Extraction, TerminatesTextsAndLeavesAllocatedOnesWhenEmpty) {
    CMemArchive archive(hex("02 00 00 00 'ab' 04 00 00 00 ac 20 00 00 01 00 00 00 ff"
                            " 00 00 00 00 ff ff ff ff"
                            " 03 00 00 00 'abc' 00 00 00 00 04 00 00 00 'abcd'"));
    std::unique_ptr<char[]> narrow;
    std::unique_ptr<wchar_t[]> wide;
    std::unique_ptr<unsigned char[]> raw;
    archive >> narrow >> wide >> raw >> narrow >> narrow; // the last two are empty
    EXPECT_STREQ(narrow.get(), "ab");
    EXPECT_STREQ(wide.get(), L"\u20ac");
    EXPECT_EQ(archived(static_cast<const unsigned char*>(raw.get())), hex("01 00 00 00 ff"));
    char buffer[4] = "xyz";
    for (const char* expected : {"abc", "", ""}) { // the last one does not fit
        EXPECT_FALSE(archive.Failed());
        archive >> buffer;
        EXPECT_STREQ(buffer, expected);
    }
    EXPECT_TRUE(archive.Failed());
}

// Reads into a destination with an old value, which a failed extraction must not change.
template<class Value>
std::function<void(CArchive&)> kept(const Value& before) {
    return [before](CArchive& archive) {
        Value value = before;
        if constexpr (std::is_same_v<Value, CPropertyBag>)
            value.Read(archive);
        else
            archive >> value;
        EXPECT_TRUE(value == before);
    };
}

TEST(BadArchive, FailsWithItsReasonAndStaysSo) {
    constexpr char text[] = "text length is more than the rest can hold";
    constexpr char count[] = "number of entries is more than the rest can hold";
    const struct {
        const char* bytes;
        const char* fault;
        std::size_t position;
        std::function<void(CArchive&)> read;
    } cases[] = {
        // clang-format off
        {"01 02 03", "the bytes end inside a value", 0, kept(77)},
        {"04 00 00 00 'abc'", text, 4, kept(std::string("old"))},
        {"ff ff ff 7f 'abc'", text, 4, kept(std::wstring(L"old"))},
        {"05 00 00 00 'abcde'", "wide text length is no multiple of 4", 4, kept(std::wstring(L"old"))},
        {"02 00 00 00 00 00 00 00 01 00 00 00 00 00 00", count, 4, kept(pairs())},
        {"01 00 00 00 01 00 00 00 'N' 04 00 00 00 01 00 00 00 02 00 00 00 03 00 00 00", count, 13, kept(bag())},
        {"00 00 00 00 00 00 00 00 ff ff ff ff", count, 12, kept(filter)},
        // clang-format on
    };
    for (const auto& one : cases) {
        static std::string debug;
        debug.clear();
        CMemArchive archive(hex(one.bytes));
        one.read(archive);
        EXPECT_STREQ(archive.Fault(), one.fault) << one.bytes;
        EXPECT_EQ(archive.Position(), one.position) << one.bytes;
        setDebugOut([](const char* state) { debug += state; });
        int later = 5;
        EXPECT_EQ(archive.Read(&later, 4), 4U);
        EXPECT_EQ(later, 5);
        EXPECT_EQ(debug, one.position > 0 ? "fail bit set\r\n" : "EOF bit set\r\nfail bit set\r\n");
        setDebugOut(nullptr);
    }
}

TEST(Bag, IsAddedToAndReadsNoValueUnderAnUnknownTag) {
    CMemArchive archive(hex("07 00 00 00 00 00 00 00 04 00 00 00 "
                            "01 00 00 00 05 00 00 00 01 00 00 00 "   // int under 5
                            "06 00 00 00 "                           // no such kind
                            "01 00 00 00 05 00 00 00 02 00 00 00 "   // int under 5 again
                            "03 00 00 00 0f 00 00 00 00 00 00 00")); // text under 15
    CPropertyBag target = bag();
    target.Set(EPROP_SIZE, 1);
    target.Read(archive);
    CPropertyBag expected("B", 7); // an empty name leaves the old one
    expected.Set(EPROP_PORT, 2);
    expected.Set(EPROP_LINE_NUMBER, "");
    expected.Set(EPROP_SIZE, 1);
    EXPECT_TRUE(!archive.Failed() && target == expected);
}

TEST(Bag, CountsAKeyWithoutValueButDoesNotWriteIt) {
    CPropertyBag empty("", 1);
    empty.Set(EPROP_PORT, std::unique_ptr<CAbstractStorageType>());
    CMemArchive archive;
    empty.Write(archive);
    EXPECT_EQ(copy(archive.Bytes()), hex("01 00 00 00 00 00 00 00 01 00 00 00"));
    EXPECT_EQ(empty.GetStorageSize(), 12U);
    EXPECT_EQ(empty.GetElementNumber(0), nullptr);
}

} // namespace
