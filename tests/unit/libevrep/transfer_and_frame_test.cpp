// Checksum, the state machine of a transfer, and the reader of framed messages.
#include "wire.h"

#include "../fuzz/frame_outcome.h"
#include "libevrep/crc32.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

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

// A message of 58 bytes and the text.
Bytes message(std::string_view text = "hello") {
    return framed(std::as_bytes(std::span(text)), CSendHeader::TASK_ECHO);
}

TEST(Transfer, GivesRoomForThePieceToBeReceived) {
    // The size and the version that the header says, the room for the data.
    const std::tuple<std::uint32_t, std::int32_t, std::size_t> cases[] = {
        {5, 1, 5}, {1 << 24, 1, 1 << 24}, {(1 << 24) + 1, 1, 0}, {5, 2, 0}};
    CTransfer transfer;
    EXPECT_TRUE(transfer.GetReadBuffer().empty());
    for (const auto& [size, version, dataRoom] : cases) {
        CSendHeader header;
        header.SetSize(size);
        header.SetVer(version);
        transfer.ResetState();
        ASSERT_EQ(transfer.GetReadBuffer().size(), 40U);
        std::ranges::copy(header.Bytes(), transfer.GetReadBuffer().begin());
        for (const std::size_t room : {dataRoom, std::size_t{18}, std::size_t{0}}) {
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
    std::ifstream file(golden + "streams.txt");
    int cases = 0;
    for (std::string line; std::getline(file, line);) {
        std::istringstream words(line);
        std::ptrdiff_t at = 0, erased = 0;
        std::uint32_t accepted = 0;
        if (!(words >> at >> erased >> accepted))
            continue; // a remark
        std::string text;
        std::getline(words, text);
        const Bytes inserted = hex(text);
        Bytes bytes;
        for (int i = 0; i < 3; ++i)
            append(bytes, message());
        bytes.erase(bytes.begin() + at, bytes.begin() + at + erased);
        bytes.insert(bytes.begin() + at, inserted.begin(), inserted.end());
        std::vector<std::string> outcome;
        while (std::getline(file, line) && !line.empty())
            outcome.push_back(line);
        for (const std::size_t piece : {1U, 7U, 1000U})
            EXPECT_EQ(outcomeOf(bytes, piece, accepted), outcome) << at;
        ++cases;
    }
    EXPECT_EQ(cases, 13);
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
