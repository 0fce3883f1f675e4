// Lists a stream of framed events.
#pragma once

#include "RecordWriter.h"

#include "libevrep/FrameReader.h"

class EventListing {
public:
    EventListing(RecordWriter& writer, std::uint32_t maxDataSize)
        : writer_(writer), reader_(maxDataSize) {}

    // The next bytes of the stream, in any pieces; what is complete is listed.
    void feed(std::span<const std::byte> bytes);
    // The stream has ended; a message cut off is listed as damage.
    void finish();

    [[nodiscard]] bool damaged() const noexcept { return damaged_; }

private:
    void drain();
    void list(const Frame& frame);
    void listEvent(const Frame& frame);
    void damage(std::uint64_t offset, std::string_view what);

    RecordWriter& writer_;
    FrameReader reader_;
    bool damaged_ = false;
};
