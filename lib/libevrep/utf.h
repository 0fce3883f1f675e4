// Conversions between the narrow, wide and UTF-8 texts of event records.
//
// Wide text is 32 bits a character. Every function tells failure by its result and never writes
// past the room it is given; on failure the content of that room is unspecified but terminated
// where the function terminates.
#pragma once

#include <cstddef>
#include <iconv.h>
#include <optional>
#include <span>
#include <string>
#include <string_view>

static_assert(sizeof(wchar_t) == 4, "wide text travels as 4 bytes a character");

class IQELHeaderString;

// The value that iconv_open returns when it knows no such conversion.
[[nodiscard]] iconv_t invalidIconv() noexcept;

// True when no byte has the top bit set.
[[nodiscard]] bool Is7BitData(std::string_view bytes) noexcept;

// Widens each byte (0 to 255) to one character.
[[nodiscard]] std::wstring ConvertToWide(std::string_view text);

// Narrows each character below 256 to its byte; "?" stands for any other.
[[nodiscard]] std::string ConvertToNarrow(std::wstring_view text);

// Stores `text` in `header` (null stores nothing) and tells whether the wide value differs from
// the plain widening, that is whether the header string decoded something. It decodes nothing, so
// the answer is false.
[[nodiscard]] bool IsHandledByHeaderString(const char* text, IQELHeaderString& header);

// True for a text of at least 9 characters that begins with "=?" and ends with "?=" (RFC 2047).
[[nodiscard]] bool IsRFC2047Encoded(std::string_view text) noexcept;

// Converts `text` through `handle` (opened from "WCHAR_T" to "UTF-8") into `buffer`, terminated.
// `length` is the buffer's size in bytes on entry and, on success, the number of bytes written
// without the terminator. False for an invalid handle, a null argument, a length below 2, an
// empty text, a text that cannot be converted or has no room; `length` is unchanged then.
[[nodiscard]] bool getUTF8(iconv_t handle, const wchar_t* text, char* buffer, std::size_t& length);

// Conversion from code page 932 (Japanese) to wide text; owns its iconv handle.
class CDBCS932ToWide {
public:
    CDBCS932ToWide();
    ~CDBCS932ToWide();
    CDBCS932ToWide(const CDBCS932ToWide&) = delete;
    CDBCS932ToWide& operator=(const CDBCS932ToWide&) = delete;

    // As getUTF8; `length` counts wide characters. Also false when the system's iconv does not
    // know the code page.
    [[nodiscard]] bool Convert(const char* text, wchar_t* buffer, std::size_t& length) const;

private:
    iconv_t handle_;
};

// UTF-8 as of RFC 3629: no surrogates, no overlong forms, nothing above U+10FFFF.
[[nodiscard]] bool utf8_valid(std::string_view text) noexcept;

// Both give the number of units written to `out` (no terminator is added), or nothing when the
// text is not valid or does not fit.
[[nodiscard]] std::optional<std::size_t> ucs4_to_utf8(std::wstring_view text,
                                                      std::span<char> out) noexcept;
[[nodiscard]] std::optional<std::size_t> utf8_to_ucs4(std::string_view text,
                                                      std::span<wchar_t> out) noexcept;
