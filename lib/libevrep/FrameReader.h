// The receiving side of framed messages: takes the bytes of a stream in any pieces and yields
// whole, checked messages, or what is wrong with the stream and where.
#pragma once

#include "libevrep/senddata.h"

#include <cstdint>
#include <span>
#include <string>
#include <variant>
#include <vector>

// A message whose identity, version, size, checksum and footer are right. What the data means
// depends on the header's task and is unchecked.
struct Frame {
    CSendHeader header;
    std::span<const std::byte> data; // valid until the next call to the reader
    CSendFooter footer;
    std::uint64_t offset; // of the header in the stream
};

enum class FrameFault { Identity, Padding, Version, Size, Footer, Checksum, Truncated };

struct FrameDamage {
    FrameFault fault;
    std::uint64_t offset; // of the wrong field in the stream; for Truncated, of the stream's end
    std::string what;     // for people
};

// Nothing (std::monostate) means: more bytes are needed, or, after finish(), there are no more.
using FrameEvent = std::variant<std::monostate, Frame, FrameDamage>;

// After a damage the reader goes on by itself: behind a message of which only the checksum is
// wrong, otherwise at the next identity with the right version, however the rest looks. The
// bytes in between are passed over without further report. It keeps at most twice the bytes of one
// message of the accepted size and what was fed last, never reserves room on the word of a header,
// and its work grows with the length of the stream only.
class FrameReader {
public:
    static constexpr std::uint32_t defaultMaxDataSize = 16 * 1024 * 1024;

    explicit FrameReader(std::uint32_t maxDataSize = defaultMaxDataSize) noexcept
        : maxDataSize_(maxDataSize) {}

    // A header that announces more data bytes is a damage (FrameFault::Size).
    void setMaxDataSize(std::uint32_t bytes) noexcept { maxDataSize_ = bytes; }

    void feed(std::span<const std::byte> bytes);

    // The stream has ended; what is incomplete now stays so.
    void finish() noexcept { finished_ = true; }

    // To be called until it yields nothing, after each feed() and after finish().
    [[nodiscard]] FrameEvent next();

private:
    [[nodiscard]] std::span<const std::byte> rest() const noexcept;
    [[nodiscard]] std::uint64_t offset() const noexcept { return base_ + start_; }
    [[nodiscard]] bool findHeader();
    [[nodiscard]] FrameEvent incomplete(std::uint64_t needed);
    [[nodiscard]] FrameEvent checkHeader();
    [[nodiscard]] FrameEvent checkBody(const CSendHeader& header);
    [[nodiscard]] FrameEvent damage(FrameFault fault, std::uint64_t at, std::string what);

    std::uint32_t maxDataSize_;
    std::vector<std::byte> buffer_;
    std::size_t start_ = 0;  // of what is not yet consumed, in buffer_
    std::uint64_t base_ = 0; // stream offset of buffer_[0]
    bool searching_ = false; // for a header, after a damage
    bool finished_ = false;
};
