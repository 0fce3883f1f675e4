// One line of the system log, taken apart: what the gateway's mail programs said of a message.
//
// Log files come from a directory that other programs write to as well: whatever does not have the
// form of docs/log-lines.md is no entry, and nothing in a line is believed beyond its bytes.
#pragma once

#include <cstdint>
#include <ctime>
#include <string_view>

namespace Retryq {

// Fields are views into the line; a field that the line does not have is empty.
struct LogEntry {
    std::time_t time = 0;
    std::int32_t pid = 0;     // of the run, as the line's text begins
    std::string_view program; // "retryer" or "retryq"
    std::string_view word;    // "delivered", "connect-failed", ...
    std::string_view text;    // from the word to the end of the line
    std::string_view message; // leaf name
    std::string_view sender;  // in brackets, like the recipient
    std::string_view recipient;
    std::string_view relay; // dotted
    std::string_view code;
    std::string_view reason; // the code in words, or the system's error
    std::string_view reply;  // the server's own words, escaped
};

// Reads lines in the order of a log. Remembers the hour of the line before: a conversion for each
// of millions of lines would cost more than all else.
class LogParser {
public:
    // `now` gives the year to lines that tell none: the latest one in which they are not of the
    // future. Times without a zone are local ones.
    explicit LogParser(std::time_t now) noexcept : now_(now) {}

    // False when the line is none of the gateway's mail programs.
    bool parse(std::string_view line, LogEntry& entry);

private:
    bool readTime(std::string_view& line, std::time_t& time);
    bool readIsoTime(std::string_view& line, std::time_t& time);
    bool readOldTime(std::string_view& line, std::time_t& time);

    std::time_t now_;
    char hour_[16] = {};        // the text of an hour, "2026-11-21T14" or "Nov 21 14"
    std::time_t hourStart_ = 0; // and when it began
};

} // namespace Retryq
