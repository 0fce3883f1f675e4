// The bytes of every type, written by hand, and how reading treats what is not as it should be.
#include "bytes.h"

#include "libevrep/debugOut.h"

#include <gtest/gtest.h>

#include <functional>
#include <limits>

namespace {

struct Golden {
    const char* name;
    std::string bytes;
    GW_EVENT event;
};

class GoldenBytes : public testing::TestWithParam<Golden> {};

GW_SCAN_CONTEXT scanContext() {
    GW_SCAN_CONTEXT scan;
    scan.setDatVersion("1");
    scan.setEngineVersion("2");
    scan.setScanRule(L"\u20ac");
    scan.setScanRuleType("");
    scan.setScannedObject("x");
    scan.setUser("u");
    scan.m_ActionTaken = -2;
    return scan;
}

constexpr char scanBytes[] = "04 00 00 00 31 00 00 00  04 00 00 00 32 00 00 00 "
                             "04 00 00 00 ac 20 00 00  00 00 00 00 "
                             "04 00 00 00 78 00 00 00  04 00 00 00 75 00 00 00  fe ff ff ff";

StringValuePairList pairs() {
    StringValuePairList list;
    list.Add("zip", 7);
    list.Add("", -1);
    return list;
}

constexpr char pairsBytes[] = "02 00 00 00  03 00 00 00 'zip' 07 00 00 00  00 00 00 00 ff ff ff ff";

GW_STATS_CONTEXT statsContext() {
    GW_STATS_CONTEXT stats;
    stats.setDomainName("d");
    stats.m_Protocol = GW_PROT_POP3;
    stats.m_outSmtp.m_lTotalMails = 1;
    stats.m_outSmtp.m_lMessageSizeDistribution[0] = 2;
    stats.m_outSmtp.m_lMessageSizeDistribution[13] = 3;
    stats.m_outSmtp.m_lTotalAttachmentSize = 4;
    stats.m_outSmtp.m_pAttachments.create() = pairs();
    stats.m_inFtp = {5, 6, 7, {}};
    stats.m_http.m_lBytesTransferred = 8;
    stats.m_http.m_lTotalGets = 9;
    return stats;
}

std::string zeros(int count) {
    std::string text;
    while (count-- > 0)
        text += " 00";
    return text;
}

std::string statsBytes() {
    constexpr int emptyMail = 4 + 56 + 4 + 4;
    constexpr int emptyFtp = 4 * 4;
    return "04 00 00 00 64 00 00 00  04 00 00 00" + zeros(emptyMail) + " 01 00 00 00  02 00 00 00" +
           zeros(12 * 4) + " 03 00 00 00  04 00 00 00 " + pairsBytes + zeros(2 * emptyMail) +
           " 05 00 00 00 06 00 00 00 07 00 00 00 00 00 00 00" + zeros(emptyFtp) +
           " 08 00 00 00 09 00 00 00 00 00 00 00";
}

// Set in another order than the archive has.
CPropertyBag bag() {
    CPropertyBag result("B", 3);
    result.Set(EPROP_LINE_NUMBER, 258);
    result.Set(EPROP_CODE_LOCATION, "here");
    result.Set(EPROP_SIZE, -2L);
    result.Set(EPROP_SENDER, L"\U0001F4E7");
    return result;
}

constexpr char bagBytes[] = "03 00 00 00  01 00 00 00 'B'  04 00 00 00 "
                            "03 00 00 00 02 00 00 00 04 00 00 00 'here' "
                            "01 00 00 00 0f 00 00 00 02 01 00 00 "
                            "02 00 00 00 11 00 00 00 fe ff ff ff "
                            "04 00 00 00 13 00 00 00 04 00 00 00 e7 f4 01 00";

GW_EVENT event(GW_UNION_DISCRIMINANT discriminant) {
    GW_EVENT result;
    result.m_iStructVersion = 9;
    result.m_EventID = EVENT_SYS_ERROR;
    result.m_intendedAudience = 2;
    result.m_CommonContext.setComputerName("c");
    result.m_CommonContext.setIPAddress("i");
    result.m_CommonContext.setMacAddress("m");
    result.m_CommonContext.setOSPlatform("p");
    result.m_CommonContext.setOSVersion("v");
    result.m_CommonContext.m_tmLocal = 1;
    result.m_CommonContext.m_tmGMT = -1;
    result.m_EventContext.setSubSystemName("n");
    result.m_EventContext.m_Severity = 0x80000000;
    result.m_PropertyBag = bag();
    result.m_iUnionDiscriminant = discriminant;
    result.m_ManagementContext.create().m_iReasonID = Reason_Range;
    result.m_ScanContext.create() = scanContext();
    result.m_StatsContext.create() = statsContext();
    return result;
}

std::string eventBytes(const std::string& detail) {
    return "09 00 00 00 bc 34 00 00 02 00 00 00  04 00 00 00 63 00 00 00 04 00 00 00 69 00 00 00 "
           "04 00 00 00 6d 00 00 00 04 00 00 00 70 00 00 00 04 00 00 00 76 00 00 00 "
           "01 00 00 00 ff ff ff ff  04 00 00 00 6e 00 00 00 00 00 00 00 00 00 00 80 " +
           std::string(bagBytes) + " " + detail;
}

const std::string managementEvent = eventBytes("01 00 00 00 02 00 00 00");
const std::string scanEvent = eventBytes("02 00 00 00 " + std::string(scanBytes));
const std::string statsEvent = eventBytes("03 00 00 00 " + statsBytes());
const std::string bareEvent = eventBytes("00 00 00 00");
const std::string strangeEvent = eventBytes("07 00 00 00");
const std::string statsAlone = statsBytes();

TEST_P(GoldenBytes, AreWrittenAndReadBack) {
    const Bytes bytes = hex(GetParam().bytes);
    EXPECT_EQ(archived(GetParam().event), bytes);
    CMemArchive archive(bytes);
    GW_EVENT read;
    archive >> read;
    EXPECT_FALSE(archive.Failed());
    EXPECT_TRUE(read == GetParam().event);
}

INSTANTIATE_TEST_SUITE_P(
    Discriminants, GoldenBytes,
    testing::Values(
        Golden{"None", eventBytes("00 00 00 00"), event(UNDECIDED)},
        Golden{"Management", eventBytes("01 00 00 00 02 00 00 00"), event(MANAGEMENT_CONTEXT)},
        Golden{"Scan", eventBytes("02 00 00 00 " + std::string(scanBytes)), event(SCAN_CONTEXT)},
        Golden{"Stats", eventBytes("03 00 00 00 " + statsBytes()), event(STATS_CONTEXT)},
        Golden{"AnyOther", eventBytes("07 00 00 00"),
               event(static_cast<GW_UNION_DISCRIMINANT>(7))}),
    [](const auto& one) { return one.param.name; });

// `value` is written as `bytes`, and those are read as `value` again.
template<class Value>
void standsFor(const char* bytes, const Value& value) {
    EXPECT_EQ(archived(value), hex(bytes));
    CMemArchive archive(hex(bytes));
    Value read{};
    archive >> read;
    EXPECT_FALSE(archive.Failed());
    EXPECT_EQ(archive.BytesLeft(), 0U);
    EXPECT_TRUE(read == value) << bytes;
}

TEST(Primitives, AreWrittenAndReadBack) {
    standsFor("fe ff ff ff", int{-2});
    standsFor("04 03 02 81", 0x81020304U);
    standsFor("fe ff", short{-2});
    standsFor("02 81", static_cast<unsigned short>(0x8102));
    standsFor("fe ff ff ff", -2L);
    standsFor("fe ff ff ff", 0xfffffffeUL);
    standsFor("e9", '\xe9');
    standsFor("e9", static_cast<unsigned char>(0xe9));
    standsFor("03 00 00 00 61 00 62", std::string("a\0b", 3));
    standsFor("0c 00 00 00 61 00 00 00 ac 20 00 00 ff ff 10 00",
              std::wstring(L"a\u20ac\U0010ffff"));
    standsFor(pairsBytes, pairs());
    standsFor("01 00 00 80 02 00 00 00 01 00 00 00 0d 7f 00 00 00 00 00 00",
              GW_FILTER{0x80000001, 2, {EVENT_LAST}, {}}.Copy());
    EXPECT_EQ(archived(std::numeric_limits<unsigned long>::max()), hex("ff ff ff ff"));
    EXPECT_EQ(archived(EVENT_SYS_ERROR_DOWN), hex("bd 34 00 00"));
    EXPECT_EQ(archived(static_cast<const char*>(nullptr)), hex("00 00 00 00"));
    EXPECT_EQ(archived(static_cast<const wchar_t*>(L"\u20ac")), hex("04 00 00 00 ac 20 00 00"));
}

TEST(AllocatedTexts, AreTerminated) {
    CMemArchive archive(hex("02 00 00 00 'ab' 04 00 00 00 ac 20 00 00 01 00 00 00 ff"));
    std::unique_ptr<char[]> narrow;
    std::unique_ptr<wchar_t[]> wide;
    std::unique_ptr<unsigned char[]> raw;
    archive >> narrow >> wide >> raw;
    EXPECT_STREQ(narrow.get(), "ab");
    EXPECT_STREQ(wide.get(), L"\u20ac");
    EXPECT_EQ(raw[0], 0xff);
    EXPECT_EQ(archived(static_cast<const unsigned char*>(raw.get())), hex("01 00 00 00 ff"));
}

TEST(Extraction, LeavesADestinationAloneWhenTheTextIsEmpty) {
    for (const char* bytes : {"00 00 00 00", "ff ff ff ff"}) {
        CMemArchive archive(hex(bytes));
        auto text = std::make_unique<char[]>(1);
        const char* before = text.get();
        archive >> text;
        EXPECT_EQ(text.get(), before);
        EXPECT_FALSE(archive.Failed());
    }
}

TEST(Extraction, FillsABufferUpToItsTerminator) {
    char buffer[4] = "xyz";
    CMemArchive archive(hex("03 00 00 00 'abc' 00 00 00 00 04 00 00 00 'abcd' 00 00 00 00"));
    archive >> buffer;
    EXPECT_STREQ(buffer, "abc");
    archive >> buffer;
    EXPECT_STREQ(buffer, "");
    archive >> buffer;
    EXPECT_STREQ(buffer, "");
    EXPECT_TRUE(archive.Failed());
    wchar_t wide[2];
    CMemArchive fits(hex("04 00 00 00 61 00 00 00"));
    fits >> wide;
    EXPECT_STREQ(wide, L"a");
}

struct Bad {
    const char* bytes;
    const char* fault;
    std::size_t position;
    std::function<void(CArchive&)> read;
};

class BadArchive : public testing::TestWithParam<Bad> {};

TEST_P(BadArchive, FailsWithItsReasonAndStaysSo) {
    CMemArchive archive(hex(GetParam().bytes));
    GetParam().read(archive);
    EXPECT_TRUE(archive.Failed());
    EXPECT_STREQ(archive.Fault(), GetParam().fault);
    EXPECT_EQ(archive.Position(), GetParam().position);
    int later = 5;
    EXPECT_EQ(archive.Read(&later, 4), 4U);
    EXPECT_EQ(later, 5);
}

template<class Value>
void keepsOnFailure(CArchive& archive, const Value& before) {
    Value value = before;
    archive >> value;
    EXPECT_TRUE(value == before);
}

INSTANTIATE_TEST_SUITE_P(
    Readers, BadArchive,
    testing::Values(
        Bad{"01 02 03", "the bytes end inside a value", 0,
            [](CArchive& archive) { keepsOnFailure(archive, 77); }},
        Bad{"04 00 00 00 'abc'", "text length is more than the rest can hold", 4,
            [](CArchive& archive) { keepsOnFailure(archive, std::string("old")); }},
        Bad{"ff ff ff 7f 'abc'", "text length is more than the rest can hold", 4,
            [](CArchive& archive) { keepsOnFailure(archive, std::wstring(L"old")); }},
        Bad{"05 00 00 00 'abcde'", "wide text length is no multiple of 4", 4,
            [](CArchive& archive) { keepsOnFailure(archive, std::wstring(L"old")); }},
        Bad{"02 00 00 00 00 00 00 00 01 00 00 00 00 00 00",
            "number of entries is more than the rest can hold", 4,
            [](CArchive& archive) { keepsOnFailure(archive, pairs()); }},
        Bad{"01 00 00 00 01 00 00 00 'N' 04 00 00 00 01 00 00 00 02 00 00 00 03 00 00 00",
            "number of entries is more than the rest can hold", 13,
            [](CArchive& archive) {
                CPropertyBag target = bag();
                target.Read(archive);
                EXPECT_TRUE(target == bag());
            }},
        Bad{"00 00 00 00 00 00 00 00 ff ff ff ff",
            "number of entries is more than the rest can hold", 12, [](CArchive& archive) {
                keepsOnFailure(archive, GW_FILTER{1, 2, {EVENT_LAST}, {}});
            }}));

TEST(BagReading, AddsToTheBagReplacesAndDoesNotSkipUnknownTags) {
    CMemArchive archive(hex("07 00 00 00 00 00 00 00 04 00 00 00 "
                            "01 00 00 00 05 00 00 00 01 00 00 00 "   // int under 5
                            "06 00 00 00 "                           // no such kind
                            "01 00 00 00 05 00 00 00 02 00 00 00 "   // int under 5 again
                            "03 00 00 00 0f 00 00 00 00 00 00 00")); // text under 15
    CPropertyBag target = bag();
    target.Read(archive);
    EXPECT_FALSE(archive.Failed());
    EXPECT_EQ(target.Identifier(), "B"); // an empty name leaves the old one
    EXPECT_EQ(target.Version(), 7);
    EXPECT_EQ(target.Count(), 5U);
    std::int32_t port = 0;
    EXPECT_TRUE(target.Get(EPROP_PORT, port));
    EXPECT_EQ(port, 2);
    EXPECT_EQ(target.FindIndex(EPROP_LINE_NUMBER)->GetType(), ST_STRING);
}

TEST(BagWriting, CountsAKeyWithoutValueButDoesNotWriteIt) {
    CPropertyBag empty("", 1);
    empty.Set(EPROP_PORT, std::unique_ptr<CAbstractStorageType>());
    CMemArchive archive;
    empty.Write(archive);
    EXPECT_EQ(copy(archive.Bytes()), hex("01 00 00 00 00 00 00 00 01 00 00 00"));
    EXPECT_EQ(empty.GetStorageSize(), 12U);
    EXPECT_EQ(empty.Count(), 1U);
    EXPECT_EQ(empty.GetElementNumber(0), nullptr);
}

std::string debugLines;

TEST(MemArchive, TellsItsStateToTheDebugChannelAndAnswersTheCountAsked) {
    setDebugOut([](const char* text) { debugLines += text; });
    CMemArchive archive(hex("01 02"));
    char bytes[4];
    EXPECT_EQ(archive.Read(bytes, 2), 2U);
    EXPECT_EQ(archive.Read(bytes, 1), 1U);
    EXPECT_EQ(debugLines, "");
    EXPECT_EQ(archive.Read(bytes, 4), 4U);
    EXPECT_EQ(debugLines, "EOF bit set\r\nfail bit set\r\n");
    setDebugOut(nullptr);
}

} // namespace
