// An event archive from anywhere: read, and what was read is written and read again the same.
#include "fuzz.h"
#include "libevrep/CMemArchive.h"
#include "libevrep/EventArchive.h"

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
    require(!again.Failed() && again.BytesLeft() == 0 && copy == event);
    return 0;
}
