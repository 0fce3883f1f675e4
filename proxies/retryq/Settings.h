// The rule table as the administrator sees it: the settings retryer takes from it, what it rejects,
// and what would end a run before it begins.
#pragma once

#include "email/site/Setting.h"
#include "fwall/config.h"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace Retryq {

using Email::Setting;
using Email::settings;

// Something to tell the administrator.
struct Finding {
    enum class Weight {
        Warning, // works, but hardly as meant
        Stop,    // retryer ends before, or in the middle of, its work; mail waits
        Loses,   // retryer runs, and returns or loses mail that its servers would take
    };
    Weight weight;
    std::int32_t line; // of the rule table, 0 for none
    std::string text;
    std::string message{};   // the leaf name of what is talked of, if it is a message
    std::string_view fate{}; // what retryer will do with it: "untouched", "removed", "returned"
};

// The rule table of one service. Reading logs nothing and never ends the program.
class RuleTable {
public:
    explicit RuleTable(std::string service);

    // The file that was read, and what determined its place.
    [[nodiscard]] const std::string& path() const noexcept { return path_; }
    [[nodiscard]] std::string placeReason() const;
    [[nodiscard]] const std::string& service() const noexcept { return service_; }

    // Null when there are no lines for the service.
    [[nodiscard]] cfgrec* records() const noexcept { return list_.get(); }

    // Lines that retryer rejects, and what makes the whole table unusable.
    [[nodiscard]] const std::vector<Finding>& faults() const noexcept { return faults_; }

    // True when retryer would end with the settings as they are, before it looks at any mail.
    [[nodiscard]] bool stops() const noexcept;

    // Loads the settings for this process, as retryer does. Call it only when stops() is false.
    void load() const;

    // The setting's value in force, and the line it comes from (0: built in).
    [[nodiscard]] std::string value(const Setting& setting) const;
    [[nodiscard]] std::int32_t line(const Setting& setting) const;

    // Unknown keys near a known one, values that read as something else than they say, lines that
    // do not count, combinations that lose mail.
    [[nodiscard]] std::vector<Finding> advice() const;

private:
    struct Free {
        void operator()(cfgrec* list) const noexcept { cfg_free(list); }
    };

    void checkWords();
    [[nodiscard]] cfgrec* find(const char* key) const;
    void adviseOnRecord(const cfgrec& record, std::vector<Finding>& out) const;
    void adviseOnCombinations(std::vector<Finding>& out) const;

    std::string service_;
    std::string path_;
    std::vector<Finding> faults_;
    std::unique_ptr<cfgrec, Free> list_;
};

// The sensible values of a number, for the administrator: "1 to 100", "0 or more".
[[nodiscard]] std::string rangeText(const Setting& setting);

// The known key that is most like the word, or null when none comes near.
[[nodiscard]] const Setting* nearestSetting(std::string_view word);

} // namespace Retryq
