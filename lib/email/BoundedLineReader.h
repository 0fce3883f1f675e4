// Reads text in lines of bounded length from a stream, in large blocks. The recipient file, the
// message body and the quoted text of a return mail differ only in the two limits.
#pragma once

#include <cstddef>
#include <iosfwd>
#include <string_view>
#include <vector>

namespace Email {

class BoundedLineReader {
public:
    enum class Kind {
        Line,  // a whole line; its line feed is consumed and not part of the text
        Piece, // the next `pieceSize` bytes of a line that is longer than `lineLimit`
        End,   // end of the text; `text` holds what stood after the last line feed (not a line)
        Error, // the stream could not be read
    };
    struct Item {
        Kind kind;
        std::string_view text; // valid until the next call
    };

    // Lines of up to `lineLimit` bytes before the line feed come whole. Of a longer one, pieces of
    // `pieceSize` (at most lineLimit) bytes are cut off until the rest fits. Bytes are counted;
    // NUL and CR are ordinary. Reading begins where the stream stands; the stream's position is
    // undefined afterwards.
    BoundedLineReader(std::istream& in, std::size_t lineLimit, std::size_t pieceSize);

    Item next();

    // Bytes handed out so far: line feeds and the tail given with End included.
    [[nodiscard]] long long consumed() const noexcept { return consumed_; }

private:
    bool fill();

    std::istream& in_;
    std::size_t lineLimit_;
    std::size_t pieceSize_;
    std::vector<char> buffer_;
    std::size_t begin_ = 0;
    std::size_t end_ = 0;
    long long consumed_ = 0;
    bool eof_ = false;
};

} // namespace Email
