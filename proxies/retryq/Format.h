// How retryq writes things: for a person on a terminal, for grep in a pipe.
#pragma once

#include <cstdint>
#include <ctime>
#include <ostream>
#include <string>
#include <string_view>

namespace Retryq {

// "45s", "12m", "3h", "2d": the largest unit that leaves at least two, "-" for less than nothing.
[[nodiscard]] std::string durationText(std::int64_t seconds);

// "512", "4.1K", "12M": bytes in powers of 1024.
[[nodiscard]] std::string sizeText(std::int64_t bytes);

// "2026-11-21 14:05:09 +0100" in the local zone; "2026-11-21T14:05:09Z" for programs.
[[nodiscard]] std::string localTimeText(std::time_t time);
[[nodiscard]] std::string isoTimeText(std::time_t time);

// A recipient's result in words, without the gateway's trailing remark: "not tried yet", "Mail
// Server is down or unreachable", "Unexpected reply" (a code of 2xx that did not count).
[[nodiscard]] std::string resultText(std::int32_t code);

// The result's number and words: "450 Requested mail action ...", or words alone for -1.
[[nodiscard]] std::string codeAndText(std::int32_t code);

enum class Colour { Plain, Red, Yellow, Green, Bold };

// Where output goes.
struct Screen {
    std::ostream& out;
    int width = 0;       // columns of the terminal, 0 when it is none
    bool colour = false; // a terminal, and NO_COLOR is not set

    [[nodiscard]] std::string paint(std::string_view text, Colour colour) const;
};

// The screen behind standard output.
[[nodiscard]] Screen standardScreen(std::ostream& out);

} // namespace Retryq
