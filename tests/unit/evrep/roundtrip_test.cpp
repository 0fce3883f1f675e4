// Whole events: written by one program, read back equal by another; damaged ones are never read
// as the same event, and reading them stays cheap.
#include "support.h"

#include "../../../fuzz/frame_outcome.h"
#include "libevrep/crc32.h"

#include <gtest/gtest.h>

#include <random>

namespace {

// Of memory asked for in all, a byte of input. The most expensive input is a bag full of short
// numbers: 12 bytes each, kept with key, both forms and a tree node.
constexpr std::size_t dearest = 16;
constexpr std::size_t fixedCost = 8192;

// Archives of events of every shape, made from the grammar and not by the library; the same on
// every host.
class Source {
public:
    explicit Source(std::uint32_t seed) : random_(seed) {}

    std::uint32_t below(std::uint32_t limit) {
        return static_cast<std::uint32_t>(random_() % limit);
    }

    Bytes event() {
        static constexpr const char* details[] = {"", "i", "wwwwwwi", "wiMMMMFFH", ""};
        const std::uint32_t discriminant = below(5);
        bytes_.clear();
        put("iiiwwwwwiiwwiB");
        number(discriminant);
        put(details[discriminant]);
        return bytes_;
    }

private:
    void put(std::string_view grammar) {
        for (const char symbol : grammar) {
            // clang-format off
            switch (symbol) {
            case 'i': number(below(~0U) >> below(32)); break;
            case 't': text(); break;
            case 'w': wide(); break;
            case 'M': put("iiiiiiiiiiiiiiiiP"); break;
            case 'F': put("iiiP"); break;
            case 'H': put("iiP"); break;
            case 'P': for (std::uint32_t left = count(5); left > 0; --left) put("ti"); break;
            default: bag();
            }
            // clang-format on
        }
    }

    void number(std::uint32_t value) { append(bytes_, std::as_bytes(std::span(&value, 1))); }

    std::uint32_t count(std::uint32_t limit, std::uint32_t unit = 1) {
        const std::uint32_t result = below(limit);
        number(result * unit);
        return result;
    }

    void text() {
        for (std::uint32_t left = count(1 + below(60)); left > 0; --left)
            bytes_.push_back(static_cast<std::byte>(below(256)));
    }

    void wide() { // the texts of the contexts hold no zeros
        for (std::uint32_t left = count(1 + below(40), 4); left > 0; --left)
            number(1 + (below(0x10FFFF) >> below(21)));
    }

    void bag() {
        put("it");
        std::uint32_t key = below(2) - 1; // from -1 or 0, in ascending order
        for (std::uint32_t left = count(12); left > 0; --left, key += 1 + below(9)) {
            const std::uint32_t tag = 1 + below(4);
            number(tag);
            number(key);
            put(std::string_view("iitw").substr(tag - 1, 1));
        }
    }

    std::mt19937 random_;
    Bytes bytes_;
};

TEST(RandomEvents, AreReadAndWrittenAgainWithTheSameBytesOnEveryHost) {
    Source source(20240229);
    std::uint32_t sum = 0;
    std::size_t size = 0;
    GW_EVENT event; // what it held before must not shine through
    for (int i = 0; i < 10000; ++i) {
        const Bytes bytes = source.event();
        GW_EVENT other;
        ASSERT_TRUE(readAll(bytes, event) && readAll(bytes, other) && event == other);
        ASSERT_TRUE(archived(event) == bytes && archived(other) == bytes);
        CMemArchive bag;
        event.m_PropertyBag.Write(bag);
        ASSERT_EQ(event.m_PropertyBag.GetStorageSize(), bag.Bytes().size());
        other = event; // deep: the change does not reach it
        event.m_PropertyBag.Set(EPROP_COUNT, "changed");
        ASSERT_TRUE(!(other == event) && archived(other) == bytes);
        CrcBuffer(bytes.data(), bytes.size(), &sum);
        size += bytes.size();
    }
    // Written down once from a 64-bit run; the 32-bit build must come to the same.
    EXPECT_EQ(size, 6859750U);
    EXPECT_EQ(sum, 3318890853U);
}

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

TEST(DamagedEvent, IsNoEventWhenCutOffAnywhere) {
    Source source(1);
    for (int i = 0; i < 40; ++i) {
        const Bytes bytes = source.event();
        for (std::size_t length = 0; length < bytes.size(); ++length)
            ASSERT_FALSE(readable(std::span(bytes).first(length))) << length;
    }
    const Bytes frame = framed(source.event());
    for (std::size_t length = 1; length < frame.size(); ++length) {
        const auto lines = outcome(std::span(frame).first(length));
        ASSERT_EQ(lines.size(), 1U) << length;
        ASSERT_TRUE(lines[0].starts_with(std::to_string(length) + ":Truncated"));
    }
}

TEST(DamagedFrame, EveryFlippedByteIsSeenAndTheNextMessageStillFound) {
    constexpr std::size_t unchecked = 20; // time, source type and task: another valid message
    Source source(2);
    for (int i = 0; i < 25; ++i) {
        Bytes stream = framed(source.event());
        const std::size_t size = stream.size();
        append(stream, framed(source.event()));
        const auto sound = outcome(stream);
        ASSERT_EQ(sound.size(), 2U);
        for (std::size_t at = 0; at < size; ++at) {
            const auto flipped = static_cast<std::byte>(1 + source.below(255));
            stream[at] ^= flipped;
            const auto lines = outcome(stream);
            stream[at] ^= flipped;
            ASSERT_EQ(lines.size(), 2U) << at;
            ASSERT_EQ(lines[0] == sound[0], at >= unchecked && at < CSendHeader::checksumAt) << at;
            ASSERT_EQ(lines[1], sound[1]) << at;
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
