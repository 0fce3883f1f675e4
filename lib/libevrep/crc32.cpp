#include "libevrep/crc32.h"

#include <array>

namespace {

constexpr std::array<std::uint32_t, 256> makeTable() {
    std::array<std::uint32_t, 256> table{};
    for (std::uint32_t i = 0; i < table.size(); ++i) {
        std::uint32_t value = i;
        for (int bit = 0; bit < 8; ++bit)
            value = (value >> 1) ^ ((value & 1) != 0 ? 0xEDB88320U : 0U);
        table[i] = value;
    }
    return table;
}

constexpr auto crcTable = makeTable();

} // namespace

bool CrcBuffer(const void* text, std::size_t length, std::uint32_t* checksum) noexcept {
    if (text == nullptr || checksum == nullptr)
        return false;
    const auto* bytes = static_cast<const unsigned char*>(text);
    // The start value as it is given, and no inversion at the end: not the usual CRC-32, but the
    // one that the collector computes.
    std::uint32_t value = *checksum;
    for (std::size_t i = 0; i < length; ++i)
        value = (value >> 8) ^ crcTable[(value ^ bytes[i]) & 0xFF];
    *checksum = value;
    return true;
}
