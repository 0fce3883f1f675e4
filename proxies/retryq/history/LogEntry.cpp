#include "retryq/history/LogEntry.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>

namespace Retryq {

namespace {

constexpr std::size_t kIsoHour = 13; // characters of "2026-11-21T14"
constexpr std::size_t kOldHour = 9;  // of "Nov 21 14"
constexpr std::time_t kDay = 86400;

bool isDigit(char c) noexcept {
    return c >= '0' && c <= '9';
}

// The number of the `n` digits at `at`, blanks before it allowed; -1 for anything else.
int digits(std::string_view text, std::size_t at, std::size_t n) noexcept {
    int value = 0;
    for (std::size_t i = at; i < at + n; ++i) {
        const char c = i < text.size() ? text[i] : '\0';
        if (!isDigit(c) && !(c == ' ' && value == 0 && i + 1 < at + n)) {
            return -1;
        }
        value = value * 10 + (c == ' ' ? 0 : c - '0');
    }
    return value;
}

bool plausible(const std::tm& fields) noexcept {
    return fields.tm_year >= 0 && fields.tm_mon >= 0 && fields.tm_mon < 12 && fields.tm_mday >= 1 &&
           fields.tm_mday <= 31 && fields.tm_hour >= 0 && fields.tm_hour < 24;
}

// Minutes and seconds of ":05:09" at the beginning of `text`, in seconds; -1 when it is none.
int withinHour(std::string_view text) noexcept {
    if (text.size() < 6 || text[0] != ':' || text[3] != ':') {
        return -1;
    }
    const int minutes = digits(text, 1, 2);
    const int seconds = digits(text, 4, 2);
    return minutes < 0 || seconds < 0 ? -1 : minutes * 60 + seconds;
}

// "Z", "+01:00", "-0330": seconds east of Greenwich; false for a time without zone.
bool readZone(std::string_view& line, int& offset) noexcept {
    if (line.starts_with('Z')) {
        line.remove_prefix(1);
        offset = 0;
        return true;
    }
    if (line.empty() || (line[0] != '+' && line[0] != '-')) {
        return false;
    }
    const std::size_t colon = line.size() > 3 && line[3] == ':' ? 1 : 0;
    const int hours = digits(line, 1, 2);
    const int minutes = digits(line, 3 + colon, 2);
    if (hours < 0 || minutes < 0) {
        return false;
    }
    offset = (hours * 60 + minutes) * 60 * (line[0] == '-' ? -1 : 1);
    line.remove_prefix(5 + colon);
    return true;
}

// The value behind `name`, up to the next blank; what comes from outside has none that is not
// escaped. `name` has its blank before it.
std::string_view field(std::string_view text, std::string_view name) noexcept {
    const std::size_t at = text.find(name);
    if (at == std::string_view::npos) {
        return {};
    }
    const std::string_view rest = text.substr(at + name.size());
    return rest.substr(0, rest.find(' '));
}

// A value of several words: it ends where the next field begins.
std::string_view phrase(std::string_view text, std::string_view name) noexcept {
    constexpr std::array<std::string_view, 6> kNext{
        " stage=", " error=", " left-out=", " reply=", " action=", " tls="};
    const std::size_t at = text.find(name);
    if (at == std::string_view::npos) {
        return {};
    }
    std::string_view value = text.substr(at + name.size());
    for (const std::string_view next : kNext) {
        value = value.substr(0, value.find(next));
    }
    return value;
}

std::string_view quoted(std::string_view text, std::string_view name) noexcept {
    const std::size_t at = text.find(name);
    if (at == std::string_view::npos) {
        return {};
    }
    const std::string_view rest = text.substr(at + name.size());
    return rest.substr(0, rest.find('"'));
}

// A server's words come last, and may look like fields.
void readFields(LogEntry& entry) {
    const std::string_view text = entry.text.substr(0, entry.text.find(" reply=\""));
    entry.message = field(text, " msg=");
    entry.sender = field(text, " from=");
    entry.recipient = field(text, " to=");
    entry.relay = field(text, " relay=");
    entry.code = field(text, " code=");
    entry.reason = phrase(text, " error=");
    if (entry.reason.empty()) {
        entry.reason = phrase(text, " text=");
    }
    entry.reply = quoted(entry.text, " reply=\"");
}

// "host retryer[123]: " or "host retryer: ": takes it off and stores the program's name.
bool readTag(std::string_view& line, std::string_view& program) noexcept {
    const std::size_t host = line.find(' ');
    if (host == std::string_view::npos) {
        return false;
    }
    line.remove_prefix(host + 1);
    const std::size_t end = line.find(": ");
    if (end == std::string_view::npos || !line.starts_with("retry")) {
        return false;
    }
    program = line.substr(0, std::min(end, line.find('[')));
    line.remove_prefix(end + 2);
    return program == "retryer" || program == "retryq";
}

} // namespace

bool LogParser::readIsoTime(std::string_view& line, std::time_t& time) {
    // The hour of the line before: in a large log converting a time costs more than all the rest.
    if (line.compare(0, kIsoHour, hour_) != 0 || hour_[kIsoHour] != '\0') {
        std::tm fields{};
        fields.tm_year = digits(line, 0, 4) - 1900;
        fields.tm_mon = digits(line, 5, 2) - 1;
        fields.tm_mday = digits(line, 8, 2);
        fields.tm_hour = digits(line, 11, 2);
        if (!plausible(fields)) {
            return false;
        }
        hourStart_ = ::timegm(&fields);
        hour_[line.copy(hour_, kIsoHour)] = '\0';
    }
    const int seconds = withinHour(line.substr(kIsoHour));
    if (seconds < 0) {
        return false;
    }
    line.remove_prefix(kIsoHour + 6);
    if (line.starts_with('.') || line.starts_with(',')) {
        line.remove_prefix(1);
        line.remove_prefix(std::min(line.find_first_not_of("0123456789"), line.size()));
    }
    time = hourStart_ + seconds;
    if (int offset = 0; readZone(line, offset)) {
        time -= offset;
    } else {
        std::tm fields{};
        // A time without a zone is this host's local time.
        ::gmtime_r(&time, &fields);
        fields.tm_isdst = -1;
        time = ::mktime(&fields);
    }
    return true;
}

bool LogParser::readOldTime(std::string_view& line, std::time_t& time) {
    constexpr std::string_view kMonths = "JanFebMarAprMayJunJulAugSepOctNovDec";
    if (line.compare(0, kOldHour, hour_) != 0 || hour_[kOldHour] != '\0') {
        const std::size_t month = kMonths.find(line.substr(0, 3));
        std::tm fields{};
        std::tm today{};
        ::localtime_r(&now_, &today);
        fields.tm_mon = static_cast<int>(month / 3);
        fields.tm_mday = digits(line, 4, 2);
        fields.tm_hour = digits(line, 7, 2);
        fields.tm_isdst = -1;
        fields.tm_year = today.tm_year;
        if (month == std::string_view::npos || !plausible(fields)) {
            return false;
        }
        std::tm before = fields;
        hourStart_ = ::mktime(&fields);
        // Such a line has no year: what lies ahead of now is last year's.
        if (hourStart_ > now_ + kDay) {
            --before.tm_year;
            hourStart_ = ::mktime(&before);
        }
        hour_[line.copy(hour_, kOldHour)] = '\0';
    }
    const int seconds = withinHour(line.substr(kOldHour));
    if (seconds < 0) {
        return false;
    }
    line.remove_prefix(kOldHour + 6);
    time = hourStart_ + seconds;
    return true;
}

bool LogParser::readTime(std::string_view& line, std::time_t& time) {
    if (line.size() < kIsoHour + 6) {
        return false;
    }
    if (!(isDigit(line[0]) ? readIsoTime(line, time) : readOldTime(line, time))) {
        return false;
    }
    if (!line.starts_with(' ')) {
        return false;
    }
    line.remove_prefix(1);
    return true;
}

bool LogParser::parse(std::string_view line, LogEntry& entry) {
    // Most lines of a log are somebody else's: they are told by this before anything is converted.
    if (line.find(" retry") == std::string_view::npos) {
        return false;
    }
    entry = {};
    if (!readTime(line, entry.time) || !readTag(line, entry.program)) {
        return false;
    }
    const auto [end, error] = std::from_chars(line.data(), line.data() + line.size(), entry.pid);
    line.remove_prefix(static_cast<std::size_t>(end - line.data()));
    if (error != std::errc() || !line.starts_with(' ')) {
        return false;
    }
    entry.text = line.substr(1);
    entry.word = entry.text.substr(0, entry.text.find(' '));
    readFields(entry);
    return true;
}

} // namespace Retryq
