#include "email/file/BoundedLineReader.h"

#include <algorithm>
#include <cstring>
#include <istream>

namespace Email {
namespace {

constexpr std::size_t kFirstBlock = std::size_t{16} * 1024; // most messages, and any whole line
constexpr std::size_t kBlock = std::size_t{64} * 1024;

} // namespace

BoundedLineReader::BoundedLineReader(std::istream& in, std::size_t lineLimit, std::size_t pieceSize)
    : in_(in) {
    setLimits(lineLimit, pieceSize);
}

void BoundedLineReader::setLimits(std::size_t lineLimit, std::size_t pieceSize) noexcept {
    lineLimit_ = std::min(lineLimit, kMaxLimit);
    pieceSize_ = std::clamp<std::size_t>(pieceSize, 1, std::max<std::size_t>(lineLimit_, 1));
}

BoundedLineReader::Item BoundedLineReader::nextPart() {
    const std::string_view ahead = unread();
    if (ahead.size() > lineLimit_) {
        return take(Kind::Piece, pieceSize_, 0);
    }
    if (eof_) {
        return in_.bad() ? Item{Kind::Error, {}} : take(Kind::End, ahead.size(), 0);
    }
    fill();
    return next();
}

// Moves what is unread to the front of a buffer that has room behind it.
void BoundedLineReader::makeRoom() {
    const std::string_view rest = unread();
    if (capacity_ == kBlock) {
        std::memmove(buffer_.get(), rest.data(), rest.size());
    } else {
        const std::size_t capacity = capacity_ == 0 ? kFirstBlock : kBlock;
        auto larger = std::make_unique_for_overwrite<char[]>(capacity);
        rest.copy(larger.get(), rest.size());
        buffer_ = std::move(larger);
        capacity_ = capacity;
    }
    begin_ = 0;
    end_ = rest.size();
}

void BoundedLineReader::fill() {
    makeRoom();
    const std::size_t room = capacity_ - end_;
    in_.read(buffer_.get() + end_, static_cast<std::streamsize>(room));
    const auto got = static_cast<std::size_t>(in_.gcount());
    end_ += got;
    taken_ += static_cast<long long>(got);
    // A stream gives less than asked for at its end, or when it fails.
    eof_ = got < room;
}

} // namespace Email
