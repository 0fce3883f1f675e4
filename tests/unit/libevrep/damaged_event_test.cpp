// A damaged event is never read as the same event, and reading one stays cheap.
#include "wire.h"

#include "../fuzz/frame_outcome.h"

#include <gtest/gtest.h>

namespace {

// Of memory asked for in all, a byte of input. The most expensive input is a bag full of short
// numbers: 12 bytes each, kept with key, both forms and a tree node.
constexpr std::size_t dearest = 16;
constexpr std::size_t fixedCost = 8192;

// Tells whether the archive can be read, which must not cost more than a small multiple of its
// size; likewise the outcome of a stream.
bool readable(std::span<const std::byte> bytes) {
    const std::size_t before = allocated;
    GW_EVENT event;
    const bool read = readAll(bytes, event);
    EXPECT_LE(allocated - before, dearest * bytes.size() + fixedCost);
    return read;
}

std::vector<std::string> outcome(std::span<const std::byte> stream) {
    const std::size_t before = allocated;
    auto lines = outcomeOf(stream, stream.size(), FrameReader::defaultMaxDataSize);
    EXPECT_LE(allocated - before, dearest * stream.size() + fixedCost);
    return lines;
}

const char* const kEvents[] = {"event0", "event1", "event2", "event3", "event7"};

TEST(DamagedEvent, IsNoEventWhenCutOffAnywhere) {
    for (const char* name : kEvents) {
        const Bytes bytes = type(name);
        for (std::size_t length = 0; length < bytes.size(); ++length)
            ASSERT_FALSE(readable(std::span(bytes).first(length))) << name << length;
        const Bytes frame = framed(bytes);
        for (std::size_t length = 1; length < frame.size(); ++length)
            ASSERT_TRUE(outcome(std::span(frame).first(length))
                            .at(0)
                            .starts_with(std::to_string(length) + ":Truncated"));
    }
}

TEST(DamagedFrame, EveryFlippedByteIsSeenAndTheNextMessageStillFound) {
    constexpr std::size_t unchecked = 20; // time, source type and task: another valid message
    for (const char* name : kEvents) {
        Bytes stream = framed(type(name));
        const std::size_t size = stream.size();
        append(stream, framed(type("event1")));
        const auto sound = outcome(stream);
        ASSERT_EQ(sound.size(), 2U);
        for (std::size_t at = 0; at < size; ++at) {
            for (const auto flipped : {std::byte{1}, std::byte{0x80}, std::byte{0xff}}) {
                stream[at] ^= flipped;
                const auto lines = outcome(stream);
                stream[at] ^= flipped;
                ASSERT_EQ(lines.size(), 2U) << at;
                ASSERT_EQ(lines[0] == sound[0], at >= unchecked && at < CSendHeader::checksumAt);
                ASSERT_EQ(lines[1], sound[1]) << at;
            }
        }
    }
}

TEST(HostileArchive, CostsASmallMultipleOfItsSize) {
    constexpr std::uint32_t entries = 20000;
    CMemArchive crowded; // an event with nothing but a bag of short numbers, all keys different
    crowded.Write(Bytes(52).data(), 52);
    crowded << 1 << "" << entries;
    for (std::uint32_t key = 0; key < entries; ++key)
        crowded << 1 << key << 0;
    crowded << 0;
    GW_EVENT stats;
    stats.m_iUnionDiscriminant = STATS_CONTEXT;
    auto& list = stats.m_StatsContext.create().m_http.m_pExtensions.create();
    for (std::uint32_t i = 0; i < entries; ++i)
        list.Add("", 0);
    EXPECT_TRUE(readable(crowded.Bytes()) && readable(archived(stats)));
}

} // namespace
