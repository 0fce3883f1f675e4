// Reads text in lines of bounded length from a stream, in large blocks. The recipient file, the
// message body and the quoted text of a return mail differ only in the two limits.
#pragma once

#include <cstddef>
#include <iosfwd>
#include <memory>
#include <string_view>

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
    // The first block read is small: a short file costs one read and little memory.
    BoundedLineReader(std::istream& in, std::size_t lineLimit, std::size_t pieceSize);

    // Largest `lineLimit`; a larger one counts as this.
    static constexpr std::size_t kMaxLimit = 4095;

    // Other limits for what is read from now on.
    void setLimits(std::size_t lineLimit, std::size_t pieceSize) noexcept;

    // Defined here: a large text is nothing but this call, and a whole line in hand the usual case.
    Item next() {
        const std::size_t lineFeed = unread().substr(0, lineLimit_ + 1).find('\n');
        return lineFeed != std::string_view::npos ? take(Kind::Line, lineFeed, 1) : nextPart();
    }

    // Bytes handed out so far: line feeds and the tail given with End included.
    [[nodiscard]] long long consumed() const noexcept {
        return taken_ - static_cast<long long>(unread().size());
    }

private:
    [[nodiscard]] std::string_view unread() const noexcept {
        return {buffer_.get() + begin_, end_ - begin_};
    }
    Item take(Kind kind, std::size_t text, std::size_t ending) noexcept {
        const Item item{kind, unread().substr(0, text)};
        begin_ += text + ending;
        return item;
    }
    Item nextPart(); // what comes when no whole line is in hand
    void makeRoom();
    void fill();

    std::istream& in_;
    std::size_t lineLimit_ = 0;
    std::size_t pieceSize_ = 0;
    std::unique_ptr<char[]> buffer_;
    std::size_t capacity_ = 0;
    std::size_t begin_ = 0;
    std::size_t end_ = 0;
    long long taken_ = 0; // bytes read from the stream
    bool eof_ = false;
};

} // namespace Email
