// What the log tells of mail that is gone or still here: the commands that read it.
#pragma once

#include "retryq/Commands.h"
#include "retryq/history/LogEntry.h"

#include <functional>
#include <string>
#include <vector>

namespace Retryq {

// Which part of the log is read, and what is shown of it.
struct History {
    std::string since;              // as readSince() takes it; empty: a day, or all of given files
    std::vector<std::string> files; // empty: the journal, or the usual log files without one
    std::size_t top = 10;           // rows of each table
    std::string svg;                // a file for the picture
    std::string counters;           // the file that keeps metrics' counters; empty: none are kept
};

// Figures of what became of recipients.
int report(const Context& context, const History& history);

// Everything that happened to a message or an address, in order.
int story(const Context& context, const History& history, const std::string& about);

// The queue's figures in the text format of Prometheus, to standard output, or durably to a file;
// with counters of what the log tells when they are kept.
int metrics(const Context& context, const std::string& file, const History& history);

// When the part that is asked for begins. False, with a word on standard error, when it makes no
// sense.
[[nodiscard]] bool beginOf(const char* command, const History& history, std::time_t now,
                           std::time_t& since);

// Tells every entry of the log that may be of that time or later. False, with a word on standard
// error, when something cannot be read.
[[nodiscard]] bool readHistory(const char* command, const History& history, std::time_t now,
                               std::time_t since,
                               const std::function<void(const LogEntry&)>& visit);

} // namespace Retryq
