// Lower case of ASCII letters alone, whatever the locale: names of hosts and words of the rule
// table count as one whatever their case, and every other byte is left as it is.
#pragma once

#include <algorithm>
#include <string>

namespace Email {

constexpr char lowerCase(char c) noexcept {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

[[nodiscard]] inline std::string inLowerCase(std::string text) {
    std::ranges::transform(text, text.begin(), lowerCase);
    return text;
}

} // namespace Email
