// A stream of framed messages from anywhere: what comes out does not depend on the pieces in
// which it came in.
#include "libevrep/EventArchive.h"
#include "libevrep/FrameReader.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>

namespace {

constexpr std::uint32_t maxDataSize = 4096;

void drain(FrameReader& reader, std::string& outcome) {
    for (;;) {
        const FrameEvent next = reader.next();
        if (const auto* frame = std::get_if<Frame>(&next)) {
            CMemArchive archive(frame->data);
            GW_EVENT event;
            archive >> event;
            outcome += 'f' + std::to_string(frame->offset) + (archive.Failed() ? '-' : '+');
        } else if (const auto* damage = std::get_if<FrameDamage>(&next)) {
            outcome += 'd' + std::to_string(damage->offset) + damage->what;
        } else {
            return;
        }
    }
}

std::string outcomeOf(std::span<const std::byte> bytes, std::size_t piece) {
    FrameReader reader(maxDataSize);
    std::string outcome;
    for (std::size_t at = 0; at < bytes.size(); at += piece) {
        reader.feed(bytes.subspan(at, std::min(piece, bytes.size() - at)));
        drain(reader, outcome);
    }
    reader.finish();
    drain(reader, outcome);
    return outcome;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto bytes = std::as_bytes(std::span(data, size));
    const std::size_t piece = size > 0 ? data[size - 1] % 64 + 1U : 1;
    if (outcomeOf(bytes, size + 1) != outcomeOf(bytes, piece))
        std::abort();
    return 0;
}
