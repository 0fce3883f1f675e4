// An event archive from anywhere: read, and what was read is written and read again the same.
#include "libevrep/CMemArchive.h"
#include "libevrep/EventArchive.h"

#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    CMemArchive input(std::as_bytes(std::span(data, size)));
    GW_EVENT event;
    input >> event;
    if (input.Failed())
        return 0;
    CMemArchive again;
    again << event;
    GW_EVENT copy;
    again >> copy;
    if (again.Failed() || again.BytesLeft() != 0 || !(copy == event))
        std::abort();
    return 0;
}
