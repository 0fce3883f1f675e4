// Numbers of property values to text and back.
#pragma once

#include <cstdint>
#include <string>

inline constexpr std::size_t xtoaSize = 32;

// Writes the decimal text of `value`, terminated, to `text`.
void xtoa(std::int32_t value, char (&text)[xtoaSize]) noexcept;

// The number at the start of `text`, after white space and a sign, cut to 32 bits of range; 0
// when none stands there.
[[nodiscard]] std::int32_t atox(const std::string& text) noexcept;
