// The figures of a report: what became of recipients, by hour, by domain and by reason, and which
// servers took long.
#pragma once

#include "retryq/history/LogEntry.h"

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

namespace Retryq {

// Recipients by what became of them in an attempt.
struct Outcomes {
    std::uint64_t delivered = 0;
    std::uint64_t deferred = 0;
    std::uint64_t returned = 0; // told to the sender
    std::uint64_t dropped = 0;  // failed for good, with nobody to tell

    [[nodiscard]] std::uint64_t failed() const noexcept { return deferred + returned + dropped; }
    Outcomes& operator+=(const Outcomes& other) noexcept;
};

// Why recipients were not delivered: the server's words, or the gateway's own.
struct ReasonCount {
    std::uint64_t recipients = 0;
    std::string words;  // as they came the first time
    std::string server; // that said so; empty for the gateway's own reasons
};

// How long a server kept runs busy: from a run's line before to the line about this server.
struct ServerTime {
    std::uint64_t lines = 0;
    std::int64_t seconds = 0;
    std::int64_t longest = 0; // seconds
};

struct ReturnCount {
    std::uint64_t recipients = 0;
    std::string sender;
};

class Tally {
public:
    // Different domains, reasons, servers and messages that are told apart; further ones are
    // counted under kOthers, so that a hostile log cannot use up the memory.
    static constexpr std::size_t kMostKeys = 100'000;
    static constexpr const char* kOthers = "(others)";

    // Takes an entry of this time or later; entries come in the order of the log.
    void add(const LogEntry& entry, std::time_t since);

    [[nodiscard]] const Outcomes& total() const noexcept { return total_; }
    [[nodiscard]] std::uint64_t lines() const noexcept { return lines_; }

    // By the beginning of the hour; hours without mail are not there.
    [[nodiscard]] const std::map<std::time_t, Outcomes>& hours() const noexcept { return hours_; }

    template<typename Value>
    using Ranked = std::vector<std::pair<std::string, Value>>;
    // The first `n`, largest first: domains by what was not delivered, then by all; reasons and
    // returns by recipients; servers by seconds.
    [[nodiscard]] Ranked<Outcomes> domains(std::size_t n) const;
    [[nodiscard]] Ranked<ReasonCount> reasons(std::size_t n) const;
    [[nodiscard]] Ranked<ServerTime> servers(std::size_t n) const;
    [[nodiscard]] Ranked<ReturnCount> returns(std::size_t n) const;

private:
    void addOutcome(const LogEntry& entry, const Outcomes& outcome);
    void addReason(const LogEntry& entry);
    void addServer(const LogEntry& entry);

    Outcomes total_;
    std::uint64_t lines_ = 0;
    std::map<std::time_t, Outcomes> hours_;
    std::unordered_map<std::string, Outcomes> domains_;
    std::unordered_map<std::string, ReasonCount> reasons_;
    std::unordered_map<std::string, ServerTime> servers_;
    std::unordered_map<std::string, ReturnCount> returns_;
    std::unordered_map<std::int32_t, std::time_t> runs_; // the latest line of each run
    std::string key_; // kept: no heap for each of millions of lines
};

// The words of a reason with every number in them as "#", so that "try again in 283 seconds" and
// "in 117 seconds" count as one; the codes at the beginning stay.
[[nodiscard]] std::string reasonKey(std::string_view words);

} // namespace Retryq
