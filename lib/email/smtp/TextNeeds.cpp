#include "email/smtp/TextNeeds.h"

#include <algorithm>
#include <array>
#include <istream>

namespace Email {

bool isEightBit(std::string_view text) noexcept {
    return std::ranges::any_of(text, [](char c) { return static_cast<unsigned char>(c) > 0x7f; });
}

// A last line without a line feed is not sent; that it is counted makes the size no smaller than
// what arrives.
TextNeeds textNeeds(std::istream& text) {
    text.clear();
    text.seekg(0);
    TextNeeds needs;
    std::array<char, 16384> block{};
    while (text.read(block.data(), block.size()) || text.gcount() > 0) {
        const std::string_view bytes(block.data(), static_cast<std::size_t>(text.gcount()));
        needs.wireSize += static_cast<long long>(bytes.size()) + std::ranges::count(bytes, '\n');
        needs.eightBit = needs.eightBit || isEightBit(bytes);
    }
    needs.wireSize += 2; // the empty line that every body ends in
    return needs;
}

} // namespace Email
