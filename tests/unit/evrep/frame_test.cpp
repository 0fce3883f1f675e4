// Checksum, the sender's state machine, and the reader of framed messages.
#include "bytes.h"
#include "memory_count.h"
#include "random_event.h"

#include "libevrep/FrameReader.h"
#include "libevrep/crc32.h"
#include "libevrep/debugOut.h"

#include <gtest/gtest.h>

#include <ctime>

namespace {

TEST(Checksum, StartsFromTheValueGivenAndIsNotInverted) {
    const auto sum = [](std::string_view text, std::uint32_t start = 0) {
        EXPECT_TRUE(CrcBuffer(text.data(), text.size(), &start));
        return start;
    };
    EXPECT_EQ(sum(""), 0U);
    EXPECT_EQ(sum(std::string_view("\0", 1)), 0U);
    EXPECT_EQ(sum("\x01"), 0x77073096U);
    EXPECT_EQ(~sum("123456789", 0xFFFFFFFF), 0xCBF43926U); // the usual CRC-32 of this text
    EXPECT_EQ(sum("6789", sum("12345")), sum("123456789"));
    std::uint32_t value = 0;
    EXPECT_FALSE(CrcBuffer(nullptr, 0, &value));
    EXPECT_FALSE(CrcBuffer("", 0, nullptr));
}

TEST(Transfer, FramesAnEvent) {
    Random random(4);
    const GW_EVENT event = randomEvent(random);
    CTransfer transfer;
    EXPECT_FALSE(transfer.IsValid());
    EXPECT_EQ(transfer.Send(event), 0);
    EXPECT_TRUE(transfer.IsValid());
    const Bytes data = archived(event);
    const CSendHeader header = transfer.GetSendHeader();
    EXPECT_EQ(header.GetSize(), data.size());
    EXPECT_EQ(header.GetSourceType(), 2);
    EXPECT_LE(static_cast<std::uint32_t>(time(nullptr)) - header.GetTimeStamp(), 1U);
    const Bytes bytes = handedOut(transfer);
    ASSERT_EQ(bytes.size(), 40 + data.size() + 18);
    EXPECT_EQ(Bytes(bytes.begin(), bytes.begin() + 20),
              hex("'QEL_APPLIANCE' 00 00 00 01 00 00 00"));
    EXPECT_EQ(Bytes(bytes.begin() + 24, bytes.begin() + 32), hex("02 00 00 00 03 00 00 00"));
    EXPECT_EQ(Bytes(bytes.begin() + 40, bytes.end() - 18), data);
    EXPECT_EQ(Bytes(bytes.end() - 18, bytes.end()), hex("'END' 20 'QEL_APPLIANCE' 00"));
}

std::string debugLines;

TEST(Transfer, MovesThroughItsStates) {
    setDebugOut([](const char* text) { debugLines += text; });
    CTransfer transfer;
    EXPECT_EQ(transfer.GetWriteData(), nullptr);
    EXPECT_EQ(transfer.Transition(), UNKNOWN);
    transfer.Send(CSendHeader());
    EXPECT_EQ(transfer.GetState(), HEADER);
    EXPECT_EQ(transfer.Transition(), DATA);
    EXPECT_EQ(transfer.GetWriteData()->Bytes().size(), 18U); // no data piece: moves on by itself
    EXPECT_EQ(transfer.GetState(), FOOTER);
    EXPECT_EQ(transfer.Transition(), FINISHED);
    EXPECT_EQ(transfer.GetWriteData(), nullptr);
    EXPECT_EQ(transfer.Transition(), FINISHED);
    EXPECT_EQ(debugLines, "The Transfer state is unknown ?? \r\nTransition to DATA\r\n"
                          "Transition to FOOTER\r\nTransition to FINISHED\r\n"
                          "Error. Transition state should not be getting called\r\n");
    setDebugOut(nullptr);
    transfer.ResetState();
    EXPECT_EQ(handedOut(transfer).size(), 58U);
    transfer.Flush();
    EXPECT_EQ(transfer.GetWriteData(), nullptr);
}

// A message with the text "hello", 63 bytes.
Bytes message(std::string_view text = "hello") {
    CSendHeader header;
    header.SetTask(CSendHeader::TASK_ECHO);
    CTransfer transfer;
    transfer.Send(header, text.data(), text.size());
    return handedOut(transfer);
}

// One line for everything that came out: "63:hello" for a message, "16:Version ..." for a damage.
std::vector<std::string> drain(FrameReader& reader) {
    static constexpr const char* faults[] = {"Identity", "Padding",  "Version",  "Size",
                                             "Footer",   "Checksum", "Truncated"};
    std::vector<std::string> lines;
    for (;;) {
        const FrameEvent next = reader.next();
        if (const auto* frame = std::get_if<Frame>(&next))
            lines.push_back(std::to_string(frame->offset) + ":" + std::string(asText(frame->data)));
        else if (const auto* damage = std::get_if<FrameDamage>(&next))
            lines.push_back(std::to_string(damage->offset) + ":" +
                            faults[static_cast<int>(damage->fault)] + ": " + damage->what);
        else
            return lines;
    }
}

struct Stream {
    const char* name;
    std::function<void(Bytes& bytes)> damage; // of three messages of 63 bytes
    std::vector<std::string> outcome;
};

class DamagedStream : public testing::TestWithParam<Stream> {};

TEST_P(DamagedStream, IsReportedWhereItIsWrongAndReadOn) {
    Bytes bytes = message();
    append(bytes, message());
    append(bytes, message());
    GetParam().damage(bytes);
    for (const std::size_t piece : {bytes.size(), std::size_t{1}, std::size_t{7}}) {
        FrameReader reader(1000);
        std::vector<std::string> lines;
        for (std::size_t at = 0; at < bytes.size(); at += piece) {
            reader.feed(std::span(bytes).subspan(at, std::min(piece, bytes.size() - at)));
            std::ranges::move(drain(reader), std::back_inserter(lines));
        }
        reader.finish();
        std::ranges::move(drain(reader), std::back_inserter(lines));
        EXPECT_EQ(lines, GetParam().outcome) << "in pieces of " << piece;
    }
}

std::function<void(Bytes&)> overwrite(std::size_t at, const char* with) {
    return [at, with](Bytes& bytes) {
        std::ranges::copy(hex(with), bytes.begin() + std::ptrdiff_t(at));
    };
}

INSTANTIATE_TEST_SUITE_P(
    Faults, DamagedStream,
    testing::Values(
        Stream{"None", [](Bytes&) {}, {"0:hello", "63:hello", "126:hello"}},
        Stream{"Garbage",
               [](Bytes& bytes) { bytes.insert(bytes.begin() + 63, 5, std::byte{'Q'}); },
               {"0:hello", "63:Identity: no message begins here", "68:hello", "131:hello"}},
        Stream{"FooterAlone",
               [](Bytes& bytes) { bytes.erase(bytes.begin(), bytes.begin() + 45); },
               {"0:Identity: no message begins here", "18:hello", "81:hello"}},
        Stream{"Identity",
               overwrite(63, "'q'"),
               {"0:hello", "63:Identity: no message begins here", "126:hello"}},
        Stream{"Padding",
               overwrite(78, "01"),
               {"0:hello", "77:Padding: the two bytes after the identity are not 0", "126:hello"}},
        Stream{"Version",
               overwrite(79, "02"),
               {"0:hello", "79:Version: version is 2 instead of 1", "126:hello"}},
        Stream{"TooLarge",
               overwrite(99, "e9 03"),
               {"0:hello", "99:Size: size is 1001, more than the accepted 1000", "126:hello"}},
        Stream{
            "SizeTooSmall",
            overwrite(99, "04"),
            {"0:hello", "107:Footer: the footer does not stand where the size says", "126:hello"}},
        Stream{
            "SizeSwallowsTheNext",
            overwrite(36, "20"),
            {"72:Footer: the footer does not stand where the size says", "63:hello", "126:hello"}},
        Stream{"SizePastTheEnd",
               overwrite(99, "00 03"),
               {"0:hello",
                "189:Truncated: the stream ends after 126 of the 826 bytes that begin at offset 63",
                "126:hello"}},
        Stream{"Data",
               overwrite(103, "'J'"),
               {"0:hello",
                "95:Checksum: checksum of the data is 0x4b332dff, the header says 0xf032519b",
                "126:hello"}},
        Stream{
            "Footer",
            overwrite(108, "'F'"),
            {"0:hello", "108:Footer: the footer does not stand where the size says", "126:hello"}},
        Stream{
            "CutOff",
            [](Bytes& bytes) { bytes.resize(130); },
            {"0:hello", "63:hello",
             "130:Truncated: the stream ends after 4 of the 40 bytes that begin at offset 126"}}),
    [](const auto& one) { return one.param.name; });

TEST(FrameReader, TakesTheLargestAcceptedSizeAndNoMore) {
    FrameReader reader;
    reader.setMaxDataSize(5);
    reader.feed(message("12345"));
    reader.feed(message("123456"));
    reader.feed(message(""));
    EXPECT_EQ(drain(reader),
              (std::vector<std::string>{"0:12345", "99:Size: size is 6, more than the accepted 5",
                                        "127:"}));
}

TEST(FrameReader, DoesNotKeepWhatIsConsumed) {
    const Bytes one = message();
    FrameReader reader;
    const MemoryCount memory;
    for (int i = 0; i < 10000; ++i) {
        reader.feed(one);
        while (std::holds_alternative<Frame>(reader.next())) {
        }
    }
    EXPECT_LE(memory.allocated(), 10 * one.size());
}

// Headers that all claim the same megabytes: each claim must be refuted without reading them.
TEST(FrameReader, IsNotSlowedDownByNestedClaims) {
    Bytes bytes;
    CSendHeader header;
    for (std::uint32_t left = 100000; left > 0; --left) {
        header.SetSize(left * CSendHeader::wireSize);
        append(bytes, header.Bytes());
    }
    bytes.resize(bytes.size() + 2 * CSendHeader::wireSize);
    FrameReader reader;
    for (std::size_t at = 0; at < bytes.size(); at += 40)
        reader.feed(std::span(bytes).subspan(at, std::min<std::size_t>(40, bytes.size() - at)));
    EXPECT_EQ(drain(reader).size(), 100000U);
}

} // namespace
