#include "retryq/Format.h"

#include "email/base/resource.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>

namespace Retryq {

namespace {

// The date and time of day with `separator` between them.
std::string timeText(const std::tm& fields, char separator) {
    std::array<char, 64> date{};
    std::array<char, 16> clock{};
    if (std::strftime(date.data(), date.size(), "%Y-%m-%d", &fields) == 0 ||
        std::strftime(clock.data(), clock.size(), "%H:%M:%S", &fields) == 0) {
        return "-";
    }
    return std::string(date.data()) + separator + clock.data();
}

} // namespace

std::string durationText(std::int64_t seconds) {
    struct Unit {
        std::int64_t seconds;
        char name;
    };
    constexpr std::array kUnits{Unit{86400, 'd'}, Unit{3600, 'h'}, Unit{60, 'm'}};
    if (seconds < 0) {
        return "-";
    }
    for (const Unit unit : kUnits) {
        // From two on: "90m" says more than "1h".
        if (seconds >= 2 * unit.seconds) {
            return std::to_string(seconds / unit.seconds) + unit.name;
        }
    }
    return std::to_string(seconds) + "s";
}

std::string sizeText(std::int64_t bytes) {
    constexpr std::string_view kUnits = "KMGT";
    if (bytes < 1024) {
        return std::to_string(bytes);
    }
    double value = static_cast<double>(bytes) / 1024;
    std::size_t unit = 0;
    for (; value >= 1024 && unit + 1 < kUnits.size(); ++unit) {
        value /= 1024;
    }
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), value < 10 ? "%.1f%c" : "%.0f%c", value, kUnits[unit]);
    return text.data();
}

std::string localTimeText(std::time_t time) {
    std::tm fields{};
    std::array<char, 16> zone{};
    return ::localtime_r(&time, &fields) == nullptr ||
                   std::strftime(zone.data(), zone.size(), " %z", &fields) == 0
               ? "-"
               : timeText(fields, ' ') + zone.data();
}

std::string isoTimeText(std::time_t time) {
    std::tm fields{};
    return ::gmtime_r(&time, &fields) == nullptr ? "-" : timeText(fields, 'T') + "Z";
}

std::string resultText(std::int32_t code) {
    if (code == IDS_NO_REASON) {
        return "not tried yet";
    }
    if (code >= 200 && code <= 299) {
        return "Unexpected reply"; // an accepted one is in the queue no more
    }
    std::string text = smtpString(static_cast<SMTPcode>(code));
    text.resize(std::min(text.find(" [SMTP"), text.size()));
    text.resize(text.find_last_not_of('.') + 1);
    return text;
}

std::string codeAndText(std::int32_t code) {
    return code == IDS_NO_REASON ? resultText(code) : std::to_string(code) + " " + resultText(code);
}

std::string Screen::paint(std::string_view text, Colour tone) const {
    constexpr std::array kCodes{"", "\033[31m", "\033[33m", "\033[32m", "\033[1m"};
    if (!colour || tone == Colour::Plain) {
        return std::string(text);
    }
    return kCodes.at(static_cast<std::size_t>(tone)) + std::string(text) + "\033[0m";
}

Screen standardScreen(std::ostream& out) {
    if (::isatty(STDOUT_FILENO) == 0) {
        return {out};
    }
    constexpr int kUsualWidth = 80;
    winsize size{};
    const bool known = ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    const char* const noColour = std::getenv("NO_COLOR");
    return {out, known ? size.ws_col : kUsualWidth, noColour == nullptr || *noColour == '\0'};
}

} // namespace Retryq
