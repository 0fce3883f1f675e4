// The bytes of every type, written by hand, and how reading treats what is not as it should be.
#include "wire.h"

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

// What the fields then hold is seen in the listings of the same bytes (evdump_test.cpp).
TEST(GoldenBytes, OfEventsAreReadAndWrittenAgain) {
    const Bytes example = block(wireFormat, "event");
    GW_EVENT event;
    for (const Bytes& bytes : {type("event0"), type("event1"), type("event3"), type("event7"),
                               type("event2"), example}) {
        EXPECT_TRUE(readAll(bytes, event));
        EXPECT_EQ(archived(event), bytes);
    }
    CTransfer transfer;
    EXPECT_EQ(transfer.Send(event), 0);
    EXPECT_EQ(handedOut(transfer), block(wireFormat, "frame"));
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
    standsFor(type("wide"), std::wstring(L"a\u20ac\U0010ffff"));
    EXPECT_EQ(archived(static_cast<const wchar_t*>(L"a\u20ac\U0010ffff")), type("wide"));
    EXPECT_EQ(archived(~0UL), hex("ff ff ff ff"));
    EXPECT_EQ(archived(EVENT_SYS_ERROR_DOWN), hex("bd 34 00 00"));
    EXPECT_EQ(archived(static_cast<const char*>(nullptr)), hex("00 00 00 00"));
}

TEST(ExtractedText, IsTerminatedAndLeavesAnAllocatedOneWhenEmpty) {
    CMemArchive archive(type("texts"));
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

using Extraction = std::function<void(CArchive&)>;

// Reads into a destination with an old value, which a failed extraction must not change.
template<class Value>
Extraction kept(const Value& before) {
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
    static std::string debug;
    const char* const text = "text length is more than the rest can hold";
    const char* const unit = "wide text length is no multiple of 4";
    const char* const count = "number of entries is more than the rest can hold";
    const Extraction string = kept(std::string("old"));
    const Extraction wide = kept(std::wstring(L"old"));
    // The reason, where it is found, and what is read.
    // clang-format off
    const std::tuple<const char*, const char*, std::size_t, Extraction> cases[] = {
        {"01 02 03", "the bytes end inside a value", 0, kept(77)},
        {"04 00 00 00 'abc'", text, 4, string}, {"ff ff ff 7f 'abc'", text, 4, wide},
        {"05 00 00 00 'abcde'", unit, 4, wide},
        {"02 00 00 00 00 00 00 00 01 00 00 00 00 00 00", count, 4, kept(pairs())},
        {"01 00 00 00 01 00 00 00 'N' 04 00 00 00 01 00 00 00 02 00 00 00 03 00 00 00", count, 13,
         kept(bag())},
        {"00 00 00 00 00 00 00 00 ff ff ff ff", count, 12, kept(filter)}};
    // clang-format on
    for (const auto& [bytes, fault, position, read] : cases) {
        debug.clear();
        CMemArchive archive(hex(bytes));
        read(archive);
        EXPECT_STREQ(archive.Fault(), fault) << bytes;
        EXPECT_EQ(archive.Position(), position) << bytes;
        setDebugOut([](const char* state) { debug += state; });
        int later = 5;
        EXPECT_EQ(archive.Read(&later, 4), 4U);
        EXPECT_EQ(later, 5);
        EXPECT_EQ(debug, position > 0 ? "fail bit set\r\n" : "EOF bit set\r\nfail bit set\r\n");
        setDebugOut(nullptr);
    }
}

TEST(Bag, IsAddedToAndReadsNoValueUnderAnUnknownTag) {
    CMemArchive archive(type("unknown-tag"));
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
    CPropertyBag texts = bag();
    texts.Set(EPROP_PORT, "four");
    texts.Set(EPROP_SIZE, L"wide");
    CMemArchive whole;
    texts.Write(whole);
    EXPECT_EQ(texts.GetStorageSize(), whole.Bytes().size());
}

} // namespace
