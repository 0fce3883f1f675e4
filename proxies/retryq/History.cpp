#include "retryq/History.h"

#include "retryq/history/LogSource.h"

#include <cerrno>
#include <cstring>
#include <iostream>

namespace Retryq {

namespace {

constexpr std::time_t kUsualTime = 86400; // seconds, when nothing is said

} // namespace

bool beginOf(const char* command, const History& history, std::time_t now, std::time_t& since) {
    since = history.files.empty() ? now - kUsualTime : 0;
    if (history.since.empty() || readSince(history.since, now, since)) {
        return true;
    }
    std::cerr << "retryq " << command
              << ": --since takes 90, 15m, 2h, 3d or \"2026-11-21 14:05\"\n";
    return false;
}

bool readHistory(const char* command, const History& history, std::time_t now, std::time_t since,
                 const std::function<void(const LogEntry&)>& visit) {
    LogParser parser(now);
    LogEntry entry;
    bool any = false;
    const LineVisitor line = [&](std::string_view text) {
        any = true;
        if (parser.parse(text, entry)) {
            visit(entry);
        }
    };
    std::vector<std::string> files = history.files;
    if (files.empty()) {
        if (readJournal(since, line)) {
            return true;
        }
        // The files have the same lines: what has been told already would count twice.
        if (any) {
            std::cerr << "retryq " << command << ": the journal cannot be read to its end\n";
            return false;
        }
        files = usualLogFiles();
    }
    if (files.empty()) {
        std::cerr << "retryq " << command << ": neither a journal nor a log file: name one\n";
    }
    bool all = !files.empty();
    for (const std::string& file : files) {
        if (!readLogFile(file, line)) {
            std::cerr << "retryq " << command << ": cannot read " << file << ": "
                      << (errno == EINVAL ? "its compressed text is damaged" : std::strerror(errno))
                      << '\n';
            all = false;
        }
    }
    return all;
}

} // namespace Retryq
