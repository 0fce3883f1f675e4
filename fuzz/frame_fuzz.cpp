// A stream of framed messages from anywhere: what comes out does not depend on the pieces in
// which it came in.
#include "frame_outcome.h"
#include "fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto bytes = std::as_bytes(std::span(data, size));
    const std::size_t piece = size > 0 ? data[size - 1] % 64 + 1U : 1;
    require(outcomeOf(bytes, size + 1, 4096) == outcomeOf(bytes, piece, 4096));
    return 0;
}
