// An IPv4 address.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>

// One IPv4 address, the four bytes as they stand on the wire.
struct IPaddress {
    std::uint32_t value = 0;

    constexpr IPaddress() noexcept = default;
    // Stores the number as it is, without any byte-order conversion.
    constexpr explicit IPaddress(std::uint32_t raw) noexcept : value(raw) {}

    // Room that format() needs.
    static constexpr std::size_t kTextSize = 16;
    // Writes "a.b.c.d", first the byte lowest in memory; returns the number of characters.
    int format(char* out) const noexcept;

    // The server of direct sends. Its bytes stand as this machine stores 0x7F000001: on a
    // little-endian one it is, and is connected to, as 1.0.0.127. Sites route that address.
    static const IPaddress loopback;
    static const IPaddress null;
};

inline bool operator==(const IPaddress& a, const IPaddress& b) noexcept {
    return a.value == b.value;
}
std::ostream& operator<<(std::ostream& out, const IPaddress& address);
