#include "email/engine/RunCounts.h"

#include <array>
#include <string>

namespace Email {

namespace {

// In the order of the line.
constexpr std::array kCounts{
    &RunCounts::entries,         &RunCounts::attempted, &RunCounts::held,     &RunCounts::delivered,
    &RunCounts::returnDelivered, &RunCounts::deferred,  &RunCounts::returned, &RunCounts::dropped};

} // namespace

RunCounts& RunCounts::operator+=(const RunCounts& other) noexcept {
    for (const auto member : kCounts) {
        this->*member += other.*member;
    }
    return *this;
}

void RunCounts::count(LogLine outcome) noexcept {
    switch (outcome) {
    case LogLine::Delivered:
        ++delivered;
        break;
    case LogLine::ReturnDelivered:
        ++returnDelivered;
        break;
    case LogLine::Deferred:
        ++deferred;
        break;
    case LogLine::Returned:
        ++returned;
        break;
    case LogLine::Dropped:
        ++dropped;
        break;
    default:
        break;
    }
}

void tellRunEnd(const RunCounts& counts, long seconds) {
    std::array<std::string, kCounts.size() + 1> texts;
    LogFields fields;
    for (std::size_t i = 0; i < texts.size(); ++i) {
        texts[i] = std::to_string(i < kCounts.size() ? counts.*kCounts[i] : seconds);
        fields.args[i] = texts[i];
    }
    writeLine(LogLine::WalkEnded, fields);
}

} // namespace Email
