// One escape makes text from outside safe for a log line: every byte below 32, the byte 127, every
// byte from 128 and the "%" sign become "%" and two upper-case hexadecimal digits.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

inline constexpr char acHex[] = "0123456789ABCDEF";

// Writes the escaped `source` to `destination`: the longest prefix that fits in `size` - 1
// characters, never half an escape, always terminated; nothing when `size` is 0. Returns the length
// of the whole escaped text, so a result of `size` or more means that it was cut. A null source is
// an empty text.
std::size_t hexescNonAscii(char* destination, const char* source, std::size_t size) noexcept;

// The same, and the bytes of `further` (null: none) are escaped as well.
std::size_t hexescNonAsciiPlus(char* destination, const char* source, std::size_t size,
                               const char* further) noexcept;

// The same escape over a counted text (NUL bytes are escaped) as a string of at most `maxBytes`
// bytes; the bytes of `further` are escaped as well. A text that does not fit is cut before a whole
// character and ends in "..."; below three bytes the mark itself is cut.
std::string printable(std::string_view text, std::size_t maxBytes, std::string_view further = {});
