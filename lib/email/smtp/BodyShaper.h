// Shapes a message body for the wire (RFC 5321, 4.5.2): lines end in CR LF, a line that begins with
// a dot gets another, long lines go out in pieces. Works on memory, so that it needs no socket.
//
// What arrives is what was queued, byte for byte: only line feeds become CR LF. A CR, also one
// before the line feed, and a NUL are data. A line that has no line feed is not sent.
#pragma once

#include "email/file/BoundedLineReader.h"

#include <algorithm>
#include <cstddef>
#include <string_view>

namespace Email {

class BodyShaper {
public:
    static constexpr std::size_t kLineLimit = 1023; // bytes of a line that comes whole
    static constexpr std::size_t kPieceSize = 1022; // bytes of each piece of a longer one

    // Most that one item adds to its wire form: a dot, CR and LF.
    static constexpr std::size_t kMaxGrowth = 3;

    // Ends the body. It follows the CR LF of the last line, so that a body arrives with one empty
    // line more than was queued; receivers of this gateway's mail have always seen it so.
    static constexpr std::string_view kTerminator = "\r\n.\r\n";

    // Writes the item's wire form, at most kMaxGrowth bytes more than its text, to `out` and
    // returns its end; nothing for End and Error. Defined here, and into room that the caller
    // keeps: a large body is nothing but this.
    char* shape(const BoundedLineReader::Item& item, char* out) noexcept {
        const bool whole = item.kind == BoundedLineReader::Kind::Line;
        if (!whole && item.kind != BoundedLineReader::Kind::Piece) {
            return out;
        }
        if (!continuation_ && item.text.starts_with('.')) {
            *out++ = '.';
        }
        out = std::copy(item.text.begin(), item.text.end(), out);
        if (whole) {
            *out++ = '\r';
            *out++ = '\n';
        }
        continuation_ = !whole;
        return out;
    }

private:
    bool continuation_ = false; // the last item was a piece: its line goes on
};

} // namespace Email
