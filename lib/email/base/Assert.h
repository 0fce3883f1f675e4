// The failed-check routine of the mail library.
#pragma once

#include <cstdint>

// Reports one EVENT_SYS_ERROR record with the condition's text, the unit ("lib/email/Sender") and
// the line, then ends the process with exit status 1. Either text may be null and is then left out
// of the record. Nothing is logged or printed. Call it only when the check has already failed.
[[noreturn]] void assert_failure(const char* condition, const char* file, std::uint32_t line);
