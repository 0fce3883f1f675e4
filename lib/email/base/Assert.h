// The failed-check routine of the mail library.
#pragma once

#include <cstdint>

// What a failed check says is a contract with those who collect the events: its condition's text,
// its unit ("lib/email/Sender", wherever the file stands by now), and its number where it has one.
// Such a number is written contractLine(152): it was the line of the check once and stays what it
// is, whatever moves the check. A check that has none gives __LINE__.
consteval std::uint32_t contractLine(std::uint32_t number) noexcept {
    return number;
}

// Reports one EVENT_SYS_ERROR record with the condition's text, the unit ("lib/email/Sender") and
// the line, then ends the process with exit status 1. Either text may be null and is then left out
// of the record. Nothing is logged or printed: failedCheck() lets the program do so while it ends.
// Call it only when the check has already failed.
[[noreturn]] void assert_failure(const char* condition, const char* file, std::uint32_t line);

struct FailedCheck {
    const char* condition; // empty when there was no text
    const char* file;
    std::uint32_t line;
};

// The check that the process is ending for; null when it is not.
[[nodiscard]] const FailedCheck* failedCheck() noexcept;
