#include "email/base/Base64.h"

#include <cstdint>

namespace Email {

namespace {

constexpr std::string_view kDigits =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Three bytes from `at` on; those behind the end count as 0.
std::uint32_t group(std::string_view bytes, std::size_t at) noexcept {
    std::uint32_t all = 0;
    for (std::size_t i = at; i < at + 3; ++i) {
        all = all << 8 | (i < bytes.size() ? static_cast<unsigned char>(bytes[i]) : 0U);
    }
    return all;
}

std::size_t paddingOf(std::string_view text) noexcept {
    return text.ends_with("==") ? 2 : text.ends_with('=') ? 1 : 0;
}

} // namespace

std::string toBase64(std::string_view bytes) {
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    for (std::size_t at = 0; at < bytes.size(); at += 3) {
        const std::uint32_t all = group(bytes, at);
        const std::size_t left = bytes.size() - at;
        for (std::size_t digit = 0; digit < 4; ++digit) {
            // One byte gives two digits, two give three.
            text += digit <= left ? kDigits[all >> (18 - 6 * digit) & 63U] : '=';
        }
    }
    return text;
}

std::optional<std::string> fromBase64(std::string_view text) {
    const std::size_t padding = paddingOf(text);
    if (text.size() % 4 != 0) {
        return std::nullopt;
    }
    std::string bytes;
    bytes.reserve(text.size() / 4 * 3);
    std::uint32_t all = 0;
    for (std::size_t at = 0; at < text.size(); ++at) {
        // Filler counts as 0; the bytes that come of it are cut off at the end.
        const bool filler = at >= text.size() - padding;
        const std::size_t digit = filler ? 0 : kDigits.find(text[at]);
        if (digit == std::string_view::npos) {
            return std::nullopt;
        }
        all = all << 6 | static_cast<std::uint32_t>(digit);
        if (at % 4 == 3) {
            for (const int shift : {16, 8, 0}) {
                bytes += static_cast<char>(all >> shift & 255U);
            }
        }
    }
    bytes.resize(bytes.size() - padding);
    return bytes;
}

} // namespace Email
