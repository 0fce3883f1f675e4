// Checksum, the state machine of a transfer, and the reader of framed messages.
#include "support.h"

#include "../../../fuzz/frame_outcome.h"
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

TEST(Transfer, MovesThroughItsStates) {
    static std::string lines;
    setDebugOut([](const char* text) { lines += text; });
    CTransfer transfer;
    EXPECT_EQ(transfer.GetWriteData(), nullptr);
    EXPECT_EQ(transfer.Transition(), UNKNOWN);
    EXPECT_FALSE(transfer.IsValid());
    transfer.Send(CSendHeader());
    EXPECT_TRUE(transfer.IsValid());
    EXPECT_LE(time(nullptr) - time_t{transfer.GetSendHeader().GetTimeStamp()}, 1);
    EXPECT_EQ(transfer.GetState(), HEADER);
    EXPECT_EQ(transfer.Transition(), DATA);
    EXPECT_EQ(transfer.GetWriteData()->Bytes().size(), 18U); // no data piece: moves on by itself
    EXPECT_EQ(transfer.GetState(), FOOTER);
    EXPECT_EQ(transfer.Transition(), FINISHED);
    EXPECT_EQ(transfer.GetWriteData(), nullptr);
    EXPECT_EQ(transfer.Transition(), FINISHED);
    EXPECT_EQ(lines, "The Transfer state is unknown ?? \r\nTransition to DATA\r\n"
                     "Transition to FOOTER\r\nTransition to FINISHED\r\n"
                     "Error. Transition state should not be getting called\r\n");
    setDebugOut(nullptr);
    transfer.ResetState();
    EXPECT_EQ(handedOut(transfer).size(), 58U);
    transfer.Flush();
    EXPECT_EQ(transfer.GetWriteData(), nullptr);
}

// A message of 58 bytes and the text.
Bytes message(std::string_view text = "hello") {
    return framed(std::as_bytes(std::span(text)), CSendHeader::TASK_ECHO);
}

TEST(Transfer, GivesRoomForThePieceToBeReceived) {
    const struct {
        std::uint32_t size; // as the header says
        std::int32_t version;
        std::size_t room; // for the data
    } cases[] = {{5, 1, 5}, {1 << 24, 1, 1 << 24}, {(1 << 24) + 1, 1, 0}, {5, 2, 0}};
    CTransfer transfer;
    EXPECT_TRUE(transfer.GetReadBuffer().empty());
    for (const auto& one : cases) {
        CSendHeader header;
        header.SetSize(one.size);
        header.SetVer(one.version);
        transfer.ResetState();
        ASSERT_EQ(transfer.GetReadBuffer().size(), 40U);
        std::ranges::copy(header.Bytes(), transfer.GetReadBuffer().begin());
        for (const std::size_t room : {one.room, std::size_t{18}, std::size_t{0}}) {
            transfer.Transition();
            EXPECT_EQ(transfer.GetReadBuffer().size(), room);
            EXPECT_EQ(transfer.GetBytesToRead(), static_cast<std::int32_t>(room));
        }
    }
    transfer.Init();
    transfer.ResetState();
    transfer.Transition();
    EXPECT_TRUE(transfer.GetReadBuffer().empty()); // no header has come
}

TEST(FrameReader, ReportsWhereAStreamIsWrongAndReadsOn) {
    const struct {
        std::ptrdiff_t at, erased; // of three messages of 63 bytes
        const char* inserted;
        std::vector<std::string> outcome;
    } cases[] = {
        // clang-format off
        {0, 0, "", {"0:hello", "63:hello", "126:hello"}},
        {63, 0, "'QQ'", {"0:hello", "63:Identity: no message begins here", "65:hello", "128:hello"}},
        {0, 45, "", {"0:Identity: no message begins here", "18:hello", "81:hello"}}, // a footer alone
        {63, 1, "'q'", {"0:hello", "63:Identity: no message begins here", "126:hello"}},
        {78, 1, "01", {"0:hello", "77:Padding: the two bytes after the identity are not 0", "126:hello"}},
        {79, 1, "02", {"0:hello", "79:Version: version is 2 instead of 1", "126:hello"}},
        {99, 1, "06", {"0:hello", "99:Size: size is 6, more than the accepted 5", "126:hello"}},
        {99, 1, "04", {"0:hello", "107:Footer: the footer does not stand where the size says", "126:hello"}},
        {108, 1, "'F'", {"0:hello", "108:Footer: the footer does not stand where the size says", "126:hello"}},
        {103, 1, "'J'", {"0:hello", "95:Checksum: checksum of the data is 0x4b332dff, the header says 0xf032519b", "126:hello"}},
        {130, 59, "", {"0:hello", "63:hello", "130:Truncated: the stream ends after 4 of the 40 bytes that begin at offset 126"}},
        // from here on with a larger size accepted: it swallows the next message, passes the end
        {36, 1, "20", {"72:Footer: the footer does not stand where the size says", "63:hello", "126:hello"}},
        {99, 2, "00 03", {"0:hello", "189:Truncated: the stream ends after 126 of the 826 bytes that begin at offset 63", "126:hello"}},
        // clang-format on
    };
    for (const auto& one : cases) {
        Bytes bytes;
        for (int i = 0; i < 3; ++i)
            append(bytes, message());
        bytes.erase(bytes.begin() + one.at, bytes.begin() + one.at + one.erased);
        const Bytes inserted = hex(one.inserted);
        bytes.insert(bytes.begin() + one.at, inserted.begin(), inserted.end());
        for (const std::size_t piece : {1U, 7U, 1000U})
            EXPECT_EQ(outcomeOf(bytes, piece, &one < std::end(cases) - 2 ? 5 : 1000), one.outcome);
    }
}

TEST(FrameReader, DoesNotKeepWhatIsConsumed) {
    const Bytes one = message();
    FrameReader reader;
    const std::size_t before = allocated;
    for (int i = 0; i < 10000; ++i) {
        reader.feed(one);
        EXPECT_TRUE(std::holds_alternative<Frame>(reader.next()));
    }
    EXPECT_LE(allocated - before, 10 * one.size());
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
    EXPECT_EQ(outcomeOf(bytes, 40, FrameReader::defaultMaxDataSize).size(), 100000U);
}

} // namespace
