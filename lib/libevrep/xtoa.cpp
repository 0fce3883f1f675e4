#include "libevrep/xtoa.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <limits>

void xtoa(std::int32_t value, char (&text)[xtoaSize]) noexcept {
    const auto [end, error] = std::to_chars(text, text + xtoaSize - 1, value);
    *end = '\0';
}

std::int32_t atox(const std::string& text) noexcept {
    using Limits = std::numeric_limits<std::int32_t>;
    // Wider than the result on 32-bit hosts too, so that a large number ends at the limit.
    const long long value = std::strtoll(text.c_str(), nullptr, 10);
    return static_cast<std::int32_t>(std::clamp<long long>(value, Limits::min(), Limits::max()));
}
