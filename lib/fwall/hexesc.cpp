#include "fwall/hexesc.h"

#include <algorithm>
#include <array>

namespace {

constexpr std::string_view kCutMark = "...";

bool isUnsafe(char c) noexcept {
    // The sign of the escape as well: else a text could pretend to be escaped.
    return c < ' ' || c > '~' || c == '%';
}

// One source byte as it stands in the output.
class EscapedByte {
public:
    EscapedByte(char c, std::string_view further) noexcept : text_{c} {
        if (isUnsafe(c) || further.find(c) != std::string_view::npos) {
            const auto byte = static_cast<unsigned char>(c);
            text_ = {'%', acHex[byte >> 4U], acHex[byte & 15U]};
            length_ = text_.size();
        }
    }
    [[nodiscard]] std::string_view view() const noexcept { return {text_.data(), length_}; }

private:
    std::array<char, 3> text_;
    std::size_t length_ = 1;
};

std::string_view viewOf(const char* text) noexcept {
    return text == nullptr ? std::string_view() : std::string_view(text);
}

} // namespace

std::size_t hexescNonAscii(char* destination, const char* source, std::size_t size) noexcept {
    return hexescNonAsciiPlus(destination, source, size, nullptr);
}

std::size_t hexescNonAsciiPlus(char* destination, const char* source, std::size_t size,
                               const char* further) noexcept {
    std::size_t length = 0;
    std::size_t end = 0;
    for (const char c : viewOf(source)) {
        const EscapedByte escaped(c, viewOf(further));
        length += escaped.view().size();
        // An escape goes out whole or not at all. The count goes on, so that the caller learns what
        // room all of it would have needed.
        if (length < size) {
            escaped.view().copy(destination + end, escaped.view().size());
            end = length;
        }
    }
    if (size > 0) {
        destination[end] = '\0';
    }
    return length;
}

std::string printable(std::string_view text, std::size_t maxBytes, std::string_view further) {
    // Nearly every text is as it should be.
    if (text.size() <= maxBytes && std::none_of(text.begin(), text.end(), isUnsafe) &&
        text.find_first_of(further) == std::string_view::npos) {
        return std::string(text);
    }
    const std::string_view mark = kCutMark.substr(0, maxBytes);
    std::string result;
    std::size_t lastWithMark = 0;
    for (const char c : text) {
        const EscapedByte escaped(c, further);
        if (result.size() + escaped.view().size() > maxBytes) {
            // Back to where the mark still has room.
            result.resize(lastWithMark);
            return result.append(mark);
        }
        result.append(escaped.view());
        if (result.size() + mark.size() <= maxBytes) {
            lastWithMark = result.size();
        }
    }
    return result;
}
