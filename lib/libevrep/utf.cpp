#include "libevrep/utf.h"

#include "libevrep/IQELHeaderString.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <cstring>
#include <cwchar>

namespace {

constexpr std::uint32_t lastCharacter = 0x10FFFF;

bool isCharacter(std::uint32_t value) {
    // The gap holds the halves that UTF-16 makes of a character; alone they are none.
    return value <= lastCharacter && (value < 0xD800 || value > 0xDFFF);
}

struct Encoded {
    std::array<char, 4> bytes;
    std::size_t length;
};

constexpr char utf8Byte(std::uint32_t value) {
    return static_cast<char>(static_cast<unsigned char>(value));
}

Encoded encode(std::uint32_t c) {
    const auto tail = [c](unsigned shift) { return utf8Byte(0x80 | ((c >> shift) & 0x3F)); };
    if (c < 0x80)
        return {{utf8Byte(c)}, 1};
    if (c < 0x800)
        return {{utf8Byte(0xC0 | (c >> 6)), tail(0)}, 2};
    if (c < 0x10000)
        return {{utf8Byte(0xE0 | (c >> 12)), tail(6), tail(0)}, 3};
    return {{utf8Byte(0xF0 | (c >> 18)), tail(12), tail(6), tail(0)}, 4};
}

struct LeadByte {
    std::size_t length;     // of the whole character, 0 when no character starts so
    std::uint32_t bits;     // what the lead byte contributes
    std::uint32_t smallest; // a smaller result would be an overlong form
};

LeadByte classify(std::uint32_t byte) {
    if (byte < 0x80)
        return {1, byte, 0};
    if (byte >= 0xC0 && byte < 0xE0)
        return {2, byte & 0x1F, 0x80};
    if (byte >= 0xE0 && byte < 0xF0)
        return {3, byte & 0x0F, 0x800};
    if (byte >= 0xF0 && byte < 0xF8)
        return {4, byte & 0x07, 0x10000};
    return {0, 0, 0};
}

// Takes one character off the front of `text`; false when none stands there.
bool takeCharacter(std::string_view& text, std::uint32_t& character) {
    const LeadByte lead = classify(static_cast<unsigned char>(text.front()));
    if (lead.length == 0 || lead.length > text.size())
        return false;
    character = lead.bits;
    for (std::size_t i = 1; i < lead.length; ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if ((byte & 0xC0) != 0x80)
            return false;
        character = (character << 6) | (byte & 0x3F);
    }
    text.remove_prefix(lead.length);
    return character >= lead.smallest && isCharacter(character);
}

// Converts all of `text` and gives the number of bytes written, or nothing on any failure.
std::optional<std::size_t> runIconv(iconv_t handle, std::span<const char> text,
                                    std::span<char> out) {
    // iconv's prototype lacks a const; it does not write to its input.
    auto* in = const_cast<char*>(text.data());
    std::size_t inLeft = text.size();
    char* to = out.data();
    std::size_t outLeft = out.size();
    // Forgets the shift state in which an earlier text may have ended.
    iconv(handle, nullptr, nullptr, nullptr, nullptr);
    if (iconv(handle, &in, &inLeft, &to, &outLeft) == static_cast<std::size_t>(-1) || inLeft != 0)
        return std::nullopt;
    return out.size() - outLeft;
}

template<class From, class To>
bool convertText(iconv_t handle, std::basic_string_view<From> text, To* buffer,
                 std::size_t& length) {
    // Half a text must not pass for a whole one: it is empty until all is converted.
    buffer[0] = To{};
    const std::size_t room = (length - 1) * sizeof(To);
    const auto written =
        runIconv(handle, {reinterpret_cast<const char*>(text.data()), text.size() * sizeof(From)},
                 {reinterpret_cast<char*>(buffer), room});
    length = written ? *written / sizeof(To) : length;
    buffer[written ? length : 0] = To{};
    return written.has_value();
}

bool usable(iconv_t handle, const void* text, const void* buffer, std::size_t length) {
    return handle != invalidIconv() && text != nullptr && buffer != nullptr && length >= 2;
}

} // namespace

iconv_t invalidIconv() noexcept {
    return reinterpret_cast<iconv_t>(std::intptr_t{-1}); // NOLINT(performance-no-int-to-ptr): POSIX
}

bool Is7BitData(std::string_view bytes) noexcept {
    return std::all_of(bytes.begin(), bytes.end(),
                       [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

std::wstring ConvertToWide(std::string_view text) {
    std::wstring wide(text.size(), L'\0');
    std::transform(text.begin(), text.end(), wide.begin(),
                   [](char c) { return static_cast<wchar_t>(static_cast<unsigned char>(c)); });
    return wide;
}

std::string ConvertToNarrow(std::wstring_view text) {
    std::string narrow(text.size(), '\0');
    std::transform(text.begin(), text.end(), narrow.begin(), [](wchar_t c) {
        // Only Latin-1 has a byte for each character.
        return static_cast<std::uint32_t>(c) < 256 ? static_cast<char>(c) : '?';
    });
    return narrow;
}

bool IsHandledByHeaderString(const char* text, IQELHeaderString& header) {
    if (text == nullptr)
        return false;
    header.SetValue(text);
    return ConvertToWide(text) != header.GetWideValue();
}

bool IsRFC2047Encoded(std::string_view text) noexcept {
    // The shortest is =?c?e?t?=.
    return text.size() >= 9 && text.starts_with("=?") && text.ends_with("?=");
}

bool getUTF8(iconv_t handle, const wchar_t* text, char* buffer, std::size_t& length) {
    if (!usable(handle, text, buffer, length) || *text == L'\0')
        return false;
    return convertText(handle, std::wstring_view(text), buffer, length);
}

CDBCS932ToWide::CDBCS932ToWide() : handle_(iconv_open("WCHAR_T", "CP932")) {}

CDBCS932ToWide::~CDBCS932ToWide() {
    if (handle_ != invalidIconv())
        iconv_close(handle_);
}

bool CDBCS932ToWide::Convert(const char* text, wchar_t* buffer, std::size_t& length) const {
    if (!usable(handle_, text, buffer, length) || *text == '\0')
        return false;
    return convertText(handle_, std::string_view(text), buffer, length);
}

bool utf8_valid(std::string_view text) noexcept {
    std::uint32_t character = 0;
    while (!text.empty()) {
        if (!takeCharacter(text, character))
            return false;
    }
    return true;
}

std::optional<std::size_t> ucs4_to_utf8(std::wstring_view text, std::span<char> out) noexcept {
    std::size_t used = 0;
    for (const wchar_t c : text) {
        const auto value = std::bit_cast<std::uint32_t>(c);
        if (!isCharacter(value))
            return std::nullopt;
        const Encoded encoded = encode(value);
        if (encoded.length > out.size() - used)
            return std::nullopt;
        std::memcpy(out.data() + used, encoded.bytes.data(), encoded.length);
        used += encoded.length;
    }
    return used;
}

std::optional<std::size_t> utf8_to_ucs4(std::string_view text, std::span<wchar_t> out) noexcept {
    std::size_t used = 0;
    while (!text.empty()) {
        std::uint32_t character = 0;
        // All or nothing: the caller learns of no half text.
        if (used == out.size() || !takeCharacter(text, character))
            return std::nullopt;
        out[used++] = static_cast<wchar_t>(character);
    }
    return used;
}
