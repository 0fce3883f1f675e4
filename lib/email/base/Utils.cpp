#include "email/base/Utils.h"

#include "email/base/Decimal.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <ostream>
#include <string_view>
#include <tuple>

namespace {

constexpr int kFirstYear = 1900;
constexpr std::time_t kEarliest = std::numeric_limits<std::int32_t>::min();

// Without TZ the C library looks at the zone file again for every mktime(). Naming the file it
// would take makes the zone fixed for the run and saves two system calls a queued message.
void pinLocalZone() noexcept {
    static const int done = ::setenv("TZ", ":/etc/localtime", 0);
    static_cast<void>(done);
}

// "%d/%d/%d@%d:%d:%d": the numbers read before the first mismatch, the others 0.
std::array<std::int32_t, 6> parseStamp(std::string_view text) noexcept {
    constexpr std::string_view kSeparators = "//@::";
    std::array<std::int32_t, 6> fields{};
    for (std::size_t i = 0; i < fields.size(); ++i) {
        const auto number = Email::takeDecimal(text);
        if (!number) {
            break;
        }
        fields[i] = *number;
        if (i == kSeparators.size() || text.empty() || text.front() != kSeparators[i]) {
            break;
        }
        text.remove_prefix(1);
    }
    return fields;
}

int yearsSince1900(std::int32_t year) noexcept {
    return static_cast<int>(std::max(std::int64_t{year} - kFirstYear,
                                     std::int64_t{std::numeric_limits<std::int32_t>::min()}));
}

auto fieldsOf(const std::tm& tm) noexcept {
    return std::tie(tm.tm_year, tm.tm_mon, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec);
}

} // namespace

DateTime::DateTime(std::time_t t) noexcept : Time(t == -1 ? std::time(nullptr) : t) {
    normalise();
}

void DateTime::normalise() noexcept {
    if (::gmtime_r(&Time, &normalised) == nullptr) {
        normalised = std::tm{};
    }
}

void DateTime::SetNow() noexcept {
    Time = std::time(nullptr);
    normalise();
}

char* DateTime::Get(char* buf) const noexcept {
    // The month stands as counted from 0. The gateway's other programs write and read it so;
    // shifting it would make every queued message a month younger or older.
    std::snprintf(buf, kTextSize, "%04lld/%02d/%02d@%02d:%02d:%02d_GMT",
                  static_cast<long long>(normalised.tm_year) + kFirstYear, normalised.tm_mon,
                  normalised.tm_mday, normalised.tm_hour, normalised.tm_min, normalised.tm_sec);
    return buf;
}

char* DateTime::TimeStamp(char* buf) const noexcept {
    constexpr std::size_t kSize = 9;
    std::snprintf(buf, kSize, "%08lx",
                  static_cast<unsigned long>(static_cast<std::uint32_t>(Time)));
    return buf;
}

char* DateTime::GetForMail(char* buf) const noexcept {
    pinLocalZone();
    std::tm local{};
    if (::localtime_r(&Time, &local) == nullptr ||
        std::strftime(buf, kMailTextSize, "%a, %d %b %Y %H:%M:%S %z (%Z)", &local) == 0) {
        buf[0] = '\0';
    }
    return buf;
}

void DateTime::Set(const char* text) noexcept {
    const auto fields = parseStamp(text);
    normalised = std::tm{};
    normalised.tm_year = yearsSince1900(fields[0]);
    normalised.tm_mon = fields[1];
    normalised.tm_mday = fields[2];
    normalised.tm_hour = fields[3];
    normalised.tm_min = fields[4];
    normalised.tm_sec = fields[5];
    // The stamp is UTC but is read as local time. Outside UTC `Time` is off by the zone's offset;
    // the gateway's other programs read it so, and both forms keep their own meaning.
    pinLocalZone();
    std::tm local = normalised;
    const std::time_t seconds = std::mktime(&local);
    // A host of 32 bits knows no earlier time, and both kinds read the same files.
    Time = seconds < kEarliest ? -1 : seconds;
}

bool DateTime::gm_gt(const DateTime& other) const noexcept {
    return fieldsOf(normalised) > fieldsOf(other.normalised);
}

DateTime operator+(const DateTime& time, std::int64_t seconds) noexcept {
    return DateTime(static_cast<std::time_t>(time.Time + seconds));
}

std::int32_t operator-(const DateTime& a, const DateTime& b) noexcept {
    using Limits = std::numeric_limits<std::int32_t>;
    const std::int64_t difference = std::int64_t{a.Time} - std::int64_t{b.Time};
    return static_cast<std::int32_t>(
        std::clamp<std::int64_t>(difference, Limits::min(), Limits::max()));
}

bool operator>(const DateTime& a, const DateTime& b) noexcept {
    return a.Time > b.Time;
}

bool operator==(const DateTime& a, const DateTime& b) noexcept {
    return a.Time == b.Time;
}

std::ostream& operator<<(std::ostream& out, const DateTime& time) {
    std::array<char, DateTime::kTextSize> text{};
    return out << time.Get(text.data());
}
