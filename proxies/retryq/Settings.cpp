#include "retryq/Settings.h"

#include "retryq/Nearest.h"

#include "email/base/Decimal.h"
#include "email/site/mailscanGlobals.h"
#include "fwall/hexesc.h"

#include <strings.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <numeric>
#include <string_view>

namespace Retryq {

namespace {

using Kind = Setting::Kind;
using Weight = Finding::Weight;

constexpr std::size_t kShown = 128; // bytes of a word in a finding

// Collects what the reader would log.
class FaultCollector : public CfgFaults {
public:
    explicit FaultCollector(std::vector<Finding>& out) : out_(out) {}

    void cannotOpen(const char* /*service*/, const char* path, int error) override {
        out_.push_back(
            {Weight::Stop, 0, std::string("cannot open ") + path + ": " + std::strerror(error)});
    }
    void rejected(const char* /*path*/, std::int32_t line, CfgFault fault) override {
        out_.push_back({Weight::Warning, line, explain(fault)});
    }
    void outOfMemory() override { out_.push_back({Weight::Stop, 0, "out of memory"}); }

private:
    static std::string explain(CfgFault fault) {
        constexpr std::array kReasons{
            " (more than 8190 characters, or the file's last line has no newline)",
            " (no colon behind the services)",
            " (the keyword needs a blank and a value behind it)",
            " (the values do not fit)",
        };
        return std::string("rejected: ") + cfg_fault_text(fault) +
               kReasons.at(static_cast<std::size_t>(fault));
    }

    std::vector<Finding>& out_;
};

std::string joined(const cfgrec& record) {
    return std::accumulate(record.argv, record.argv + record.argc, std::string(),
                           [](std::string text, const char* word) {
                               return std::move(text) + (text.empty() ? "" : " ") + word;
                           });
}

bool isNumber(std::string_view word) noexcept {
    return Email::takeDecimal(word).has_value() && word.empty();
}

bool isYesNo(const char* word) noexcept {
    constexpr std::array kWords{"on",  "y", "yes", "t", "true",  "1", "*",
                                "off", "n", "no",  "f", "false", "0"};
    return std::ranges::any_of(kWords, [word](auto w) { return ::strcasecmp(w, word) == 0; });
}

bool isSensible(const Setting& setting, long number) noexcept {
    return number >= setting.least && number <= setting.most;
}

std::string intervalText(std::int32_t seconds) {
    return seconds == 0 ? "off" : std::to_string(seconds);
}

// The word count that ends a run through a failed check, in words; null when the count will do.
const char* wrongWordCount(const Setting& setting, int words) noexcept {
    switch (setting.kind) {
    case Kind::YesNo:
        return words > 1 ? "exactly one value" : nullptr;
    case Kind::Words:
        return words < 1 ? "at least one value" : nullptr;
    case Kind::Lines:
        if (*setting.choices != '\0') {
            return words != 2 ? "a pattern and one word" : nullptr;
        }
        return words < 2 ? "a pattern and at least one server" : nullptr;
    default:
        return words != 1 ? "exactly one value" : nullptr;
    }
}

const Setting* known(std::string_view key) noexcept {
    const auto all = settings();
    const auto at = std::ranges::find_if(all, [key](const Setting& s) { return s.key == key; });
    return at == all.end() ? nullptr : &*at;
}

} // namespace

std::string rangeText(const Setting& setting) {
    const std::string from = setting.kind == Kind::Interval ? "off" : std::to_string(setting.least);
    return setting.most == Setting::kNoLimit ? from + " or more"
                                             : from + " to " + std::to_string(setting.most);
}

const Setting* nearestSetting(std::string_view word) {
    std::vector<std::string_view> keys;
    std::ranges::transform(settings(), std::back_inserter(keys), &Setting::key);
    return known(nearest(word, keys));
}

RuleTable::RuleTable(std::string service) : service_(std::move(service)) {
    FaultCollector collector(faults_);
    cfgrec* const list = cfg_read_observed(service_.c_str(), collector);
    path_ = pfile == nullptr ? "" : pfile;
    if (!cfg_failed(list)) {
        list_.reset(list);
        if (list == nullptr) {
            faults_.push_back({Weight::Stop, 0,
                               "no line for the service \"" + printable(service_, kShown) + "\""});
        }
    }
    checkWords();
}

std::string RuleTable::placeReason() const {
    if (std::getenv("TAVORIX") != nullptr) {
        return "install location from the environment variable TAVORIX";
    }
    return homedir[0] != '\0' ? "install location from /var/QELENV/.profile.vars"
                              : "no install location";
}

void RuleTable::checkWords() {
    for (const Setting& setting : settings()) {
        for (cfgrec* record = find(setting.key); record != nullptr;
             record = cfg_next(setting.key, record)) {
            const char* const needed = wrongWordCount(setting, record->argc);
            if (needed != nullptr) {
                faults_.push_back({Weight::Stop, record->ln,
                                   std::string(setting.key) + " takes " + needed + ", here are " +
                                       std::to_string(record->argc)});
            } else if (*setting.choices != '\0' &&
                       Email::choiceOf(setting.choices, record->argv[record->argc - 1]) < 0) {
                faults_.push_back({Weight::Stop, record->ln,
                                   std::string(setting.key) + " takes one of " + setting.choices +
                                       ", here is \"" +
                                       printable(record->argv[record->argc - 1], kShown) + '"'});
            }
            if (!setting.repeats()) {
                break; // only the first line counts
            }
        }
    }
}

bool RuleTable::stops() const noexcept {
    return std::ranges::any_of(faults_, [](const Finding& f) { return f.weight == Weight::Stop; });
}

void RuleTable::load() const {
    mailscanGlobals::initialise(records());
}

cfgrec* RuleTable::find(const char* key) const {
    return list_ ? cfg_get(key, list_.get()) : nullptr;
}

std::int32_t RuleTable::line(const Setting& setting) const {
    const cfgrec* const record = find(setting.key);
    return record == nullptr ? 0 : record->ln;
}

std::string RuleTable::value(const Setting& setting) const {
    const cfgrec* const record = find(setting.key);
    if (record == nullptr) {
        return setting.builtIn;
    }
    if (wrongWordCount(setting, record->argc) != nullptr) {
        return joined(*record); // the library's readers would end the program
    }
    switch (setting.kind) {
    case Kind::Number:
        return std::to_string(intParam(setting.key, list_.get(), 0));
    case Kind::YesNo:
        return boolParam(setting.key, list_.get(), false) ? "yes" : "no";
    case Kind::Interval:
        return intervalText(Email::decimalOf(record->argv[0]));
    default:
        return joined(*record);
    }
}

std::vector<Finding> RuleTable::advice() const {
    std::vector<Finding> out;
    for (const cfgrec* record = records(); record != nullptr; record = record->next) {
        adviseOnRecord(*record, out);
    }
    adviseOnCombinations(out);
    return out;
}

void RuleTable::adviseOnRecord(const cfgrec& record, std::vector<Finding>& out) const {
    const auto warn = [&](const std::string& text) {
        out.push_back({Weight::Warning, record.ln, text});
    };
    const std::string key = printable(record.op, kShown);
    const Setting* const setting = known(record.op);
    if (setting == nullptr) {
        // The gateway's other programs have keys of their own: only what is nearly one of ours is
        // told.
        const Setting* const nearest = nearestSetting(record.op);
        if (nearest != nullptr) {
            warn("unknown key " + key + ": did you mean " + nearest->key + "?");
        }
        return;
    }
    if (record.flags != 0) {
        warn(key + ": its deny-, permit- or absorb- is not looked at");
    }
    // The first line of a key counts.
    if (!setting->repeats() && line(*setting) != record.ln) {
        warn(key + " does not count: it stands on line " + std::to_string(line(*setting)) +
             " already");
        return;
    }
    const char* const word = record.argc > 0 ? record.argv[0] : "";
    const std::string shown = "\"" + printable(word, kShown) + "\"";
    if (setting->kind == Kind::Number && !isNumber(word)) {
        warn(key + ": " + shown + " is no whole number and reads as " + value(*setting));
    } else if (setting->kind == Kind::Interval && !isNumber(word) &&
               ::strcasecmp(word, "off") != 0) {
        warn(key + ": " + shown + " is neither \"off\" nor a number of seconds and reads as " +
             value(*setting));
    } else if (setting->kind == Kind::YesNo && !isYesNo(word)) {
        warn(key + ": " + shown + " reads as no");
    } else if (setting->kind == Kind::Directory && !std::string_view(word).ends_with('/')) {
        warn(key + ": " + shown + " does not end in a slash");
    }
}

void RuleTable::adviseOnCombinations(std::vector<Finding>& out) const {
    const auto number = [this](const char* key) { return std::atol(value(*known(key)).c_str()); };
    const auto say = [&](Weight weight, const char* key, const std::string& text) {
        out.push_back({weight, line(*known(key)), text});
    };
    for (const Setting& setting : settings()) {
        if (setting.most != 0 && !isSensible(setting, number(setting.key))) {
            say(Weight::Warning, setting.key,
                std::string(setting.key) + " of " + value(setting) + ": sensible is " +
                    rangeText(setting));
        }
    }
    if (number("max-addr-to-try") < 0) {
        say(Weight::Stop, "max-addr-to-try",
            "max-addr-to-try below 0 ends the run at the first delivery");
    } else if (number("max-addr-to-try") == 0 || number("max-addr-per-host") <= 0) {
        say(Weight::Loses, "max-addr-to-try",
            "no server address may be tried: all mail is returned in the end");
    }
    if (number("smtp-max-deferral") <= number("smtp-min-deferral")) {
        say(Weight::Loses, "smtp-max-deferral",
            "smtp-max-deferral of " + value(*known("smtp-max-deferral")) +
                " is not above smtp-min-deferral: mail is returned before a second try");
    }
    if (number("smtp-direct-size-limit") != 0 && number("smtp-direct-recipient-limit") == 0) {
        say(Weight::Loses, "smtp-direct-recipient-limit",
            "smtp-direct-size-limit with a recipient limit of 0: return mail may be lost");
    }
    if (value(*known("badadmin")).empty()) {
        say(Weight::Warning, "badadmin",
            "badadmin is not set: return mail has no From: line that names anybody, and some "
            "servers refuse it");
    }
}

} // namespace Retryq
