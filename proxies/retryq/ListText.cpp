#include "retryq/ListText.h"

#include "retryq/Filter.h"

#include <array>

namespace Retryq {

namespace {

constexpr std::size_t kTimeLine = 63;      // a longer line is read as two
constexpr std::size_t kLongestLine = 2047; // so is a longer one of a recipient
constexpr int kHeadLines = 4;              // times, tries and sender

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
    // A stamp that reads as the time 0 makes a recipient file unreadable.
    if (!usable(line)) {
        line = stamp(due + -2); // one second less would be -1, which stands for now
    }
    std::string out(text.substr(0, first + 1));
    return out.append(line).append(text.substr(second));
}

std::string withoutRecipient(std::string_view text, std::string_view address,
                             std::vector<std::string>& gone) {
    std::string out;
    for (int line = 0; !text.empty(); ++line) {
        const std::size_t end = text.find('\n');
        if (end == text.npos) {
            return line < kHeadLines ? "" : out.append(text);
        }
        const std::string_view recipient = text.substr(0, std::min(end, text.rfind('\t', end)));
        // The engine would read this line as two: nobody knows which recipient was meant.
        if (end > kLongestLine) {
            return {};
        }
        if (line >= kHeadLines && matches(address, recipient)) {
            gone.emplace_back(recipient);
        } else {
            out.append(text.substr(0, end + 1));
        }
        text.remove_prefix(end + 1);
    }
    return out;
}

} // namespace Retryq
