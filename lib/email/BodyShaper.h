// Shapes a message body for the wire (RFC 5321, 4.5.2): lines end in CR LF, a line that begins with
// a dot gets another, long lines go out in pieces. Works on memory, so that it needs no socket.
#pragma once

#include "email/BoundedLineReader.h"

#include <cstddef>
#include <string>
#include <string_view>

namespace Email {

class BodyShaper {
public:
    static constexpr std::size_t kLineLimit = 1023; // bytes of a line that comes whole
    static constexpr std::size_t kPieceSize = 1022; // bytes of each piece of a longer one
    static constexpr std::string_view kTerminator = "\r\n.\r\n";

    // Appends the item's wire form to `out`; End and Error append nothing.
    void shape(const BoundedLineReader::Item& item, std::string& out);

private:
    bool continuation_ = false; // the last item was a piece: its line goes on
};

} // namespace Email
