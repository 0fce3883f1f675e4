#include "email/base/IPaddress.h"

#include <array>
#include <charconv>
#include <cstring>
#include <ostream>

constinit const IPaddress IPaddress::loopback{0x7F000001};
constinit const IPaddress IPaddress::null{0};

int IPaddress::format(char* out) const noexcept {
    std::array<unsigned char, sizeof value> byte{};
    // In network byte order the first octet is the lowest in memory.
    std::memcpy(byte.data(), &value, sizeof value);
    char* end = out;
    for (const unsigned char number : byte) {
        end = std::to_chars(end, out + kTextSize, number).ptr;
        *end++ = '.';
    }
    *--end = '\0';
    return static_cast<int>(end - out);
}

std::ostream& operator<<(std::ostream& out, const IPaddress& address) {
    std::array<char, IPaddress::kTextSize> text{};
    address.format(text.data());
    return out << text.data();
}
