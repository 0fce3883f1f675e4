// Whole events: written by one program, read back equal by another; damaged ones are never read
// as the same event, and reading them stays cheap.
#include "bytes.h"
#include "memory_count.h"
#include "random_event.h"

#include "libevrep/FrameReader.h"
#include "libevrep/crc32.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace {

constexpr int events = 10000;
// Of memory asked for in all, a byte of input. The most expensive input is a bag full of short
// numbers: 12 bytes each, kept with key, both forms and a tree node.
constexpr std::size_t dearest = 16;
constexpr std::size_t fixedCost = 8192;

TEST(RandomEvents, AreReadBackEqualWithTheSameBytesOnEveryHost) {
    Random random(20240229);
    std::uint32_t sum = 0;
    std::size_t size = 0;
    for (int i = 0; i < events; ++i) {
        const GW_EVENT event = randomEvent(random);
        const Bytes bytes = archived(event);
        CMemArchive archive(bytes);
        GW_EVENT read = randomEvent(random); // what stood there before must not shine through
        archive >> read;
        ASSERT_FALSE(archive.Failed());
        ASSERT_EQ(archive.BytesLeft(), 0U);
        ASSERT_TRUE(read == event);
        ASSERT_EQ(archived(read), bytes);
        CMemArchive bag;
        event.m_PropertyBag.Write(bag);
        ASSERT_EQ(event.m_PropertyBag.GetStorageSize(), bag.Bytes().size());
        CrcBuffer(bytes.data(), bytes.size(), &sum);
        size += bytes.size();
    }
    // Written down once from a 64-bit run; the 32-bit build must come to the same.
    EXPECT_EQ(size, 8701653U);
    EXPECT_EQ(sum, 3528658658U);
}

TEST(RandomEvents, CopiesAreDeepAndDifferencesAreSeen) {
    Random random(7);
    for (int i = 0; i < 200; ++i) {
        GW_EVENT event = randomEvent(random);
        event.m_PropertyBag.Set(EPROP_COUNT, 1);
        const GW_EVENT copied = event;
        ASSERT_TRUE(copied == event);
        event.m_PropertyBag.Set(EPROP_COUNT, 2);
        ASSERT_FALSE(copied == event);
    }
}

TEST(DamagedArchive, EveryTruncationFails) {
    Random random(1);
    for (int i = 0; i < 40; ++i) {
        const Bytes bytes = archived(randomEvent(random));
        for (std::size_t length = 0; length < bytes.size(); ++length) {
            const MemoryCount memory;
            CMemArchive archive{std::span(bytes).first(length)};
            GW_EVENT event;
            archive >> event;
            ASSERT_TRUE(archive.Failed()) << length << " of " << bytes.size();
            ASSERT_LE(memory.allocated(), dearest * length + fixedCost);
        }
    }
}

// Everything that the reader makes of a stream.
struct Outcome {
    std::vector<Bytes> frames; // header and data
    std::size_t damages = 0;
};

Outcome readStream(std::span<const std::byte> bytes) {
    Outcome outcome;
    FrameReader reader;
    reader.feed(bytes);
    reader.finish();
    for (;;) {
        const FrameEvent next = reader.next();
        if (const auto* frame = std::get_if<Frame>(&next)) {
            const auto header = frame->header.Bytes();
            outcome.frames.emplace_back(header.begin(), header.end());
            append(outcome.frames.back(), frame->data);
        } else if (std::holds_alternative<FrameDamage>(next)) {
            ++outcome.damages;
        } else {
            return outcome;
        }
    }
}

TEST(DamagedFrame, EveryFlippedByteIsSeenAndTheNextMessageStillFound) {
    Random random(2);
    for (int i = 0; i < 25; ++i) {
        const Bytes frame = framed(randomEvent(random));
        const Bytes follower = framed(randomEvent(random));
        const Bytes original(frame.begin(), frame.end() - CSendFooter::wireSize);
        const Bytes next(follower.begin(), follower.end() - CSendFooter::wireSize);
        Bytes stream = frame;
        append(stream, follower);
        for (std::size_t at = 0; at < frame.size(); ++at) {
            stream[at] ^= static_cast<std::byte>(1 + below(random, 255));
            const MemoryCount memory;
            const Outcome outcome = readStream(stream);
            ASSERT_LE(memory.allocated(), dearest * stream.size() + fixedCost);
            ASSERT_EQ(std::count(outcome.frames.begin(), outcome.frames.end(), original), 0) << at;
            ASSERT_EQ(std::count(outcome.frames.begin(), outcome.frames.end(), next), 1) << at;
            ASSERT_EQ(outcome.frames.size() + (outcome.damages > 0 ? 1U : 0U), 2U) << at;
            stream[at] = frame[at];
        }
    }
}

TEST(DamagedFrame, EveryTruncationIsSeen) {
    Random random(3);
    const Bytes frame = framed(randomEvent(random));
    for (std::size_t length = 1; length < frame.size(); ++length) {
        const Outcome outcome = readStream(std::span(frame).first(length));
        ASSERT_TRUE(outcome.frames.empty());
        ASSERT_EQ(outcome.damages, 1U) << length;
    }
}

TEST(HostileArchive, CostsASmallMultipleOfItsSize) {
    constexpr std::uint32_t entries = 20000;
    CMemArchive crowded; // an event with nothing but a bag of short numbers, all keys different
    crowded.Write(Bytes(3 * 4 + 5 * 4 + 2 * 4 + 3 * 4).data(), 52);
    crowded << 1 << "" << entries;
    for (std::uint32_t key = 0; key < entries; ++key)
        crowded << 1 << key << 0;
    crowded << 0;
    StringValuePairList list;
    for (std::uint32_t i = 0; i < entries; ++i)
        list.Add("", 0);
    GW_EVENT stats;
    stats.m_iUnionDiscriminant = STATS_CONTEXT;
    stats.m_StatsContext.create().m_http.m_pExtensions.create() = list;
    for (const Bytes& bytes : {copy(crowded.Bytes()), archived(stats)}) {
        const MemoryCount memory;
        CMemArchive archive(bytes);
        GW_EVENT event;
        archive >> event;
        EXPECT_FALSE(archive.Failed());
        EXPECT_LE(memory.allocated(), dearest * bytes.size() + fixedCost);
    }
}

} // namespace
