#include "retryq/DueNow.h"

#include <array>

namespace Retryq {

namespace {

constexpr std::size_t kTimeLine = 63; // a longer line is read as two

std::string stamp(const DateTime& time) {
    std::array<char, DateTime::kTextSize> text{};
    return time.Get(text.data());
}

// What a reader makes of the stamp.
bool usable(const std::string& text) {
    DateTime read;
    read.Set(text.c_str());
    return read.Time != 0;
}

} // namespace

std::string withLatestTry(std::string_view text, const DateTime& due) {
    const std::size_t first = text.find('\n');
    const std::size_t second = first == text.npos ? first : text.find('\n', first + 1);
    if (second == text.npos || first > kTimeLine || second - first - 1 > kTimeLine) {
        return {};
    }
    std::string line = stamp(due);
    if (!usable(line)) {
        line = stamp(due + -2); // one second less would be -1, which stands for now
    }
    std::string out(text.substr(0, first + 1));
    return out.append(line).append(text.substr(second));
}

} // namespace Retryq
