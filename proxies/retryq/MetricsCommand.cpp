#include "email/file/FileReplacement.h"
#include "retryq/History.h"
#include "retryq/Json.h"
#include "retryq/history/Counters.h"

#include <sys/statvfs.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <sstream>
#include <unordered_map>

namespace Retryq {

namespace {

constexpr std::size_t kDomains = 20; // each domain is a time series of its own for the collector
constexpr mode_t kFileMode = 0644;   // the collector runs as somebody else

struct Figures {
    std::uint64_t messages = 0;
    std::uint64_t recipients = 0;
    std::uint64_t bytes = 0;
};

constexpr std::array kStates{"due", "waiting", "overdue", "unreadable", "on-hold", "held"};
constexpr std::size_t kHeld = kStates.size() - 1;

struct QueueFigures {
    std::array<Figures, kStates.size()> states{};
    std::int64_t oldest = 0; // seconds
    std::unordered_map<std::string, std::uint64_t> domains;

    void add(const Message& message, const Recipients& recipients, std::time_t now) {
        Figures& figures = states[message.held ? kHeld : static_cast<std::size_t>(message.state)];
        ++figures.messages;
        figures.recipients += message.recipients;
        figures.bytes += static_cast<std::uint64_t>(std::max<std::int64_t>(message.size, 0));
        oldest = std::max(oldest, message.age(now));
        for (const EmailAddr* r = recipients.first(); r != nullptr; r = r->next.get()) {
            ++domains[domainOf(*r)];
        }
    }
};

void describe(std::ostream& out, const char* name, const char* help) {
    out << "# HELP " << name << ' ' << help << "\n# TYPE " << name << " gauge\n";
}

void writeStates(std::ostream& out, const char* name, const char* help, const QueueFigures& queue,
                 std::uint64_t Figures::*figure) {
    describe(out, name, help);
    for (std::size_t i = 0; i < kStates.size(); ++i) {
        out << name << "{state=\"" << kStates[i] << "\"} " << queue.states[i].*figure << '\n';
    }
}

// A label's value may hold anything but these three unescaped.
std::string labelText(const std::string& text) {
    std::string out;
    for (const char c : text) {
        out += c == '\\' || c == '"' ? std::string("\\") + c
               : c == '\n'           ? "\\n"
                                     : std::string(1, c);
    }
    return out;
}

void writeDomains(std::ostream& out, const QueueFigures& queue) {
    using Entry = std::pair<std::string, std::uint64_t>;
    std::vector<Entry> rows(queue.domains.begin(), queue.domains.end());
    std::ranges::sort(rows, [](const Entry& a, const Entry& b) {
        return a.second != b.second ? a.second > b.second : a.first < b.first;
    });
    constexpr const char* kName = "retryer_queue_domain_recipients";
    describe(out, kName, "Recipients waiting, by domain; the largest ones.");
    std::uint64_t others = 0;
    for (std::size_t i = 0; i < rows.size(); ++i) {
        if (i < kDomains) {
            out << kName << "{domain=\"" << labelText(rows[i].first) << "\"} " << rows[i].second
                << '\n';
        } else {
            others += rows[i].second;
        }
    }
    describe(out, "retryer_queue_other_domain_recipients",
             "Recipients waiting in all other domains.");
    out << "retryer_queue_other_domain_recipients " << others << '\n';
}

std::string textOf(const QueueFigures& queue, std::time_t now) {
    std::ostringstream out;
    writeStates(out, "retryer_queue_messages", "Deferred messages.", queue, &Figures::messages);
    writeStates(out, "retryer_queue_recipients", "Recipients still to be served.", queue,
                &Figures::recipients);
    writeStates(out, "retryer_queue_bytes", "Bytes of message text.", queue, &Figures::bytes);
    describe(out, "retryer_queue_oldest_age_seconds", "Age of the oldest message.");
    out << "retryer_queue_oldest_age_seconds " << queue.oldest << '\n';
    writeDomains(out, queue);
    describe(out, "retryer_queue_read_timestamp_seconds", "When the queue was read.");
    out << "retryer_queue_read_timestamp_seconds " << now << '\n';
    return out.str();
}

// What labelText() has written, from the opening brace on.
Json labelsOf(std::string_view text) {
    Json labels = Json::object();
    while (text.starts_with('{') || text.starts_with(',')) {
        const std::size_t equals = text.find('=');
        std::string value;
        std::size_t at = equals + 2;
        for (; at < text.size() && text[at] != '"'; ++at) {
            at += text[at] == '\\' ? 1U : 0U;
            value += text.substr(at, 1);
        }
        labels[std::string(text.substr(1, equals - 1))] = value;
        text.remove_prefix(std::min(at + 1, text.size()));
    }
    return labels;
}

// The same figures for programs that do not read the collector's format: each line an object.
void writeObjects(std::ostream& out, const std::string& text) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with('#')) {
            continue;
        }
        const std::size_t end = line.find_first_of("{ ");
        const double value = std::strtod(line.c_str() + line.rfind(' '), nullptr);
        writeJson(out, {{"metric", line.substr(0, end)},
                        {"labels", labelsOf(std::string_view(line).substr(end))},
                        {"value", value}});
    }
}

constexpr std::time_t kSettled = 2; // seconds until nothing more is logged for a second

void writeValue(std::ostream& out, const char* name, const char* help, std::int64_t value) {
    describe(out, name, help);
    out << name << ' ' << value << '\n';
}

void writeCounters(std::ostream& out, const Counters& counters) {
    constexpr const char* kName = "retryer_recipients_total";
    out << "# HELP " << kName << " Recipients by what became of them, and the result code.\n# TYPE "
        << kName << " counter\n";
    for (const auto& [outcome, count] : counters.outcomes()) {
        out << kName << "{outcome=\"" << outcome.first << "\",code=\"" << labelText(outcome.second)
            << "\"} " << count << '\n';
    }
    writeValue(out, "retryer_last_run_timestamp_seconds", "When the last run ended.",
               counters.lastRunEnd());
    writeValue(out, "retryer_last_run_duration_seconds", "How long the last run took.",
               counters.lastRunSeconds());
    writeValue(out, "retryer_last_run_status", "Exit status of the last run.",
               counters.lastRunStatus());
}

void writeSpace(std::ostream& out, const std::string& directory) {
    struct statvfs space {};
    if (::statvfs(directory.c_str(), &space) != 0) {
        return;
    }
    writeValue(out, "retryer_spool_free_bytes", "Room left for mail.",
               static_cast<std::int64_t>(space.f_bavail) *
                   static_cast<std::int64_t>(space.f_frsize));
    if (space.f_files != 0) { // not every file system has a fixed number
        writeValue(out, "retryer_spool_free_inodes", "Files that can still be made.",
                   static_cast<std::int64_t>(space.f_favail));
    }
}

// Brings the counters up to date from the log. False when they cannot be kept.
bool count(const Context& context, const History& history, std::ostream& out) {
    Counters counters(history.counters, context.now);
    const std::time_t end = context.now - kSettled;
    if (!readHistory("metrics", history, context.now, counters.upTo(),
                     [&](const LogEntry& entry) { counters.add(entry, end); })) {
        return false;
    }
    writeCounters(out, counters);
    // A new file too, whose time is later than `end`: what comes next is counted from there.
    if (!counters.save(history.counters, std::max(end, counters.upTo()))) {
        std::cerr << "retryq metrics: cannot write " << history.counters << ": "
                  << std::strerror(errno) << '\n';
        return false;
    }
    return true;
}

} // namespace

int metrics(const Context& context, const std::string& file, const History& history) {
    QueueFigures queue;
    if (!context.queue.visit([&](const Message& message, const Recipients& recipients) {
            queue.add(message, recipients, context.now);
        })) {
        return cannotOpenSpool(context);
    }
    std::ostringstream more;
    writeSpace(more, context.queue.directory());
    const bool counted = history.counters.empty() || count(context, history, more);
    const std::string text = textOf(queue, context.now) + more.str();
    if (file.empty()) {
        context.json ? writeObjects(context.screen.out, text)
                     : static_cast<void>(context.screen.out << text);
        return counted ? kDone : kTrouble;
    }
    // The collector reads when it likes: the old figures or the new ones, never half of them.
    Email::FileReplacement replacement(file, kFileMode, Email::FileReplacement::LeftOver::Remove,
                                       Email::FileReplacement::InPlace::Never);
    if (replacement.open() && replacement.commit(text)) {
        return counted ? kDone : kTrouble;
    }
    std::cerr << "retryq metrics: cannot write " << file << ": " << std::strerror(errno) << '\n';
    return kTrouble;
}

} // namespace Retryq
