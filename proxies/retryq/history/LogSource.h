// Where lines of the system log come from: files, plain or compressed by gzip, or the journal.
#pragma once

#include <cstdint>
#include <ctime>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace Retryq {

// Told of each line, without its line end. A line of more than kLineLimit bytes comes in pieces.
using LineVisitor = std::function<void(std::string_view)>;

inline constexpr std::size_t kLineLimit = 65536;

// Reads one file to its end. False, with errno, when it cannot be opened or read; EINVAL for one
// whose compressed bytes are damaged. Lines before the trouble have been told.
bool readLogFile(const std::string& path, const LineVisitor& visit);

// Reads what the journal has of the mail programs since that time. False when there is no journal,
// or when its reader failed.
bool readJournal(std::time_t since, const LineVisitor& visit);

// The files that the system's log daemon writes mail programs' lines to, rotated ones first, oldest
// first; those that there are.
[[nodiscard]] std::vector<std::string> usualLogFiles();

// "90", "15m", "-2h" or "3d" in seconds; -1 for anything else.
[[nodiscard]] std::int64_t secondsOf(std::string_view text);

// "90", "15m", "-2h", "3d" before `now`, or "2026-11-21 14:05" (local; the time of day may be left
// out). False for anything else.
bool readSince(std::string_view text, std::time_t now, std::time_t& since);

} // namespace Retryq
