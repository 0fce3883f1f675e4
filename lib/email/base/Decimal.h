// Whole numbers at the front of a text, for the spool files and the settings.
#pragma once

#include <cstdint>
#include <limits>
#include <optional>
#include <string_view>

namespace Email {

constexpr bool isBlank(char c) noexcept {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

// Reads what strtol() reads in the C locale, base 10: blanks, one sign, digits. Moves `text` behind
// the last digit. A number outside 32 bits becomes the nearest limit. Without a digit: nothing, and
// `text` stays.
constexpr std::optional<std::int32_t> takeDecimal(std::string_view& text) noexcept {
    using Limits = std::numeric_limits<std::int32_t>;
    std::size_t i = 0;
    while (i < text.size() && isBlank(text[i])) {
        ++i;
    }
    const bool negative = i < text.size() && text[i] == '-';
    if (negative || (i < text.size() && text[i] == '+')) {
        ++i;
    }
    const std::size_t digits = i;
    std::int64_t value = 0;
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
        value = value > Limits::max() ? value : value * 10 + (text[i] - '0');
    }
    if (i == digits) {
        return std::nullopt;
    }
    text.remove_prefix(i);
    value = negative ? -value : value;
    return static_cast<std::int32_t>(value < Limits::min()   ? Limits::min()
                                     : value > Limits::max() ? Limits::max()
                                                             : value);
}

// The number at the front of a text, 0 without a digit.
constexpr std::int32_t decimalOf(std::string_view text) noexcept {
    return takeDecimal(text).value_or(0);
}

} // namespace Email
