// What became of mail since counting began, kept from one look at the log to the next: counters as
// a monitor wants them, which only grow.
//
// They live in a small file of their own. It is replaced as a whole; one that is missing or makes
// no sense begins anew, which a monitor sees as a reset.
#pragma once

#include "retryq/history/LogEntry.h"

#include <cstdint>
#include <map>
#include <string>

namespace Retryq {

class Counters {
public:
    // Result codes that are told apart; further ones count as "other".
    static constexpr std::size_t kMostCodes = 200;

    // Reads what save() wrote; without a usable file counting begins at `now`.
    Counters(const std::string& file, std::time_t now);

    // Until when the log has been counted; entries from then on are to be added.
    [[nodiscard]] std::time_t upTo() const noexcept { return upTo_; }

    // Counts an entry that is not older than upTo() and older than `end`.
    void add(const LogEntry& entry, std::time_t end);

    // Everything before `end` is counted now. False, with errno, when the file cannot be written:
    // the next look then counts the same again, from the old file.
    bool save(const std::string& file, std::time_t end);

    // By outcome ("delivered", "deferred", "returned", "dropped") and code.
    using Outcome = std::pair<std::string, std::string>;
    [[nodiscard]] const std::map<Outcome, std::uint64_t>& outcomes() const noexcept {
        return outcomes_;
    }

    // Of the last run that the log tells of; 0 without one.
    [[nodiscard]] std::int64_t lastRunEnd() const noexcept { return lastRunEnd_; } // epoch
    [[nodiscard]] std::int64_t lastRunSeconds() const noexcept { return lastRunSeconds_; }
    [[nodiscard]] std::int64_t lastRunStatus() const noexcept { return lastRunStatus_; }

private:
    void load(const std::string& text);
    void addRun(const LogEntry& entry);

    std::time_t upTo_;
    std::map<Outcome, std::uint64_t> outcomes_;
    std::int64_t lastRunEnd_ = 0;
    std::int64_t lastRunSeconds_ = 0;
    std::int64_t lastRunStatus_ = 0;
};

} // namespace Retryq
