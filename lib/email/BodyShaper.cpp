#include "email/BodyShaper.h"

namespace Email {

void BodyShaper::shape(const BoundedLineReader::Item& item, std::string& out) {
    const bool whole = item.kind == BoundedLineReader::Kind::Line;
    if (!whole && item.kind != BoundedLineReader::Kind::Piece) {
        return;
    }
    if (!continuation_ && item.text.starts_with('.')) {
        out += '.';
    }
    out += item.text;
    if (whole) {
        out += "\r\n";
    }
    continuation_ = !whole;
}

} // namespace Email
