#include "fwall/linefile.h"

#include <cstddef>

std::optional<std::span<char>> LineFile::next(std::span<char> buffer) noexcept {
    std::size_t length = 0;
    int c = 0;
    bool any = false;
    while (c != '\n' && (c = getc_unlocked(file_.get())) != EOF) {
        any = true;
        // What has no room is read and dropped: the next call begins at a line.
        if (length < buffer.size()) {
            buffer[length++] = static_cast<char>(c);
        }
    }
    if (!any) {
        return std::nullopt;
    }
    return buffer.first(length);
}
