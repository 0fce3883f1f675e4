// DateTime, the one time value of the mail library, and its spool text.
#pragma once

#include <cstdint>
#include <ctime>
#include <iosfwd>

class DateTime {
public:
    // Room that Get() needs in the worst case: a stamp read from a file may hold six numbers of
    // any size.
    static constexpr std::size_t kTextSize = 128;
    // Room that GetForMail() needs.
    static constexpr std::size_t kMailTextSize = 64;

    // Time 0, with an empty broken-down form.
    DateTime() noexcept = default;

    // `t` seconds since the epoch. -1 means now; so does a sum that happens to be -1.
    explicit DateTime(std::time_t t) noexcept;

    // Fills `normalised` from `Time` as UTC; all zero when the year does not fit.
    void normalise() noexcept;
    void SetNow() noexcept;

    // Writes the spool stamp "YYYY/MM/DD@hh:mm:ss_GMT" from `normalised`, at most kTextSize bytes
    // with the terminator, and returns `buf`.
    char* Get(char* buf) const noexcept;

    // Writes the low 32 bits of `Time` as "%08lx" (9 bytes with the terminator).
    char* TimeStamp(char* buf) const noexcept;

    // Writes the local time as an RFC 5322 date, at most kMailTextSize bytes with the terminator;
    // an empty text when it does not fit.
    char* GetForMail(char* buf) const noexcept;

    // Reads the spool stamp. Never fails: fields that do not parse stay 0.
    void Set(const char* text) noexcept;

    // True when this time is later than the other, compared field by field on the broken-down
    // forms (years first, seconds last).
    [[nodiscard]] bool gm_gt(const DateTime& other) const noexcept;

    std::time_t Time = 0;
    std::tm normalised{};
};

DateTime operator+(const DateTime& time, std::int64_t seconds) noexcept;
// Seconds from `b` to `a`, clamped to 32 bits.
std::int32_t operator-(const DateTime& a, const DateTime& b) noexcept;
bool operator>(const DateTime& a, const DateTime& b) noexcept;
bool operator==(const DateTime& a, const DateTime& b) noexcept;
std::ostream& operator<<(std::ostream& out, const DateTime& time);
