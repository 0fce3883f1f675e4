// A time stamp, any text: the fields are those that scanf() finds, and what is written is read
// back.
#include "email/base/Utils.h"
#include "fuzz.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>

namespace {

// scanf() does not say what a number makes that fits no int: left out.
bool isDefined(const std::string& text) {
    int digits = 0;
    return std::all_of(text.begin(), text.end(), [&](char c) {
        return (digits = c >= '0' && c <= '9' ? digits + 1 : 0) < 10;
    });
}

void agreesWithScanf(const std::string& text, const std::tm& found) {
    int year = 0;
    std::tm tm{};
    // NOLINTNEXTLINE(cert-err34-c): the oracle; fields that do not parse stay 0
    static_cast<void>(std::sscanf(text.c_str(), "%d/%d/%d@%d:%d:%d", &year, &tm.tm_mon, &tm.tm_mday,
                                  &tm.tm_hour, &tm.tm_min, &tm.tm_sec));
    require(year - 1900 == found.tm_year && tm.tm_mon == found.tm_mon &&
            tm.tm_mday == found.tm_mday);
    require(tm.tm_hour == found.tm_hour && tm.tm_min == found.tm_min && tm.tm_sec == found.tm_sec);
}

void isReadBack(const DateTime& time) {
    char text[DateTime::kTextSize];
    DateTime again;
    again.Set(time.Get(text));
    require(std::strlen(text) < sizeof text && again.Time == time.Time);
    require(!again.gm_gt(time) && !time.gm_gt(again));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(std::string(data, data + size).c_str());
    DateTime time;
    time.Set(text.c_str());
    if (isDefined(text)) {
        agreesWithScanf(text, time.normalised);
    }
    isReadBack(time);
    char mail[DateTime::kMailTextSize];
    require(std::strlen(time.GetForMail(mail)) < sizeof mail);
    require(std::strlen(time.TimeStamp(mail)) == 8);
    require((time + 60) - time == 60 || time.Time == -61);
    return 0;
}
