#include "retryq/history/Counters.h"

#include "email/file/FdStream.h"
#include "email/file/FileReplacement.h"

#include <nlohmann/json.hpp>

#include <array>
#include <charconv>

namespace Retryq {

namespace {

using Json = nlohmann::json;

constexpr mode_t kFileMode = 0640;
constexpr std::size_t kMostBytes = 1 << 20;
constexpr const char* kOther = "other";

std::string contentOf(const std::string& file) {
    Email::FdStream in(file.c_str());
    std::string text(kMostBytes, '\0');
    in.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<std::size_t>(in.gcount()));
    return text;
}

std::int64_t number(const Json& object, const char* key) {
    const auto found = object.find(key);
    return found != object.end() && found->is_number_integer() ? found->get<std::int64_t>() : 0;
}

// The number behind `name` in a line, 0 without one.
std::int64_t valueIn(std::string_view text, std::string_view name) {
    const std::size_t at = text.find(name);
    std::int64_t value = 0;
    if (at != std::string_view::npos) {
        const std::string_view rest = text.substr(at + name.size());
        std::from_chars(rest.data(), rest.data() + rest.size(), value);
    }
    return value;
}

} // namespace

Counters::Counters(const std::string& file, std::time_t now) : upTo_(now) {
    load(contentOf(file));
}

void Counters::load(const std::string& text) {
    const Json object = Json::parse(text, nullptr, false);
    // A file that is damaged, or from a clock that was ahead: counting begins now.
    if (!object.is_object() || number(object, "up_to") <= 0 || number(object, "up_to") > upTo_) {
        return;
    }
    upTo_ = number(object, "up_to");
    lastRunEnd_ = number(object, "last_run_end");
    lastRunSeconds_ = number(object, "last_run_seconds");
    lastRunStatus_ = number(object, "last_run_status");
    for (const Json& row : object.value("outcomes", Json::array())) {
        const bool usable = row.is_array() && row.size() == 3 && row[0].is_string() &&
                            row[1].is_string() && row[2].is_number_unsigned();
        if (usable && outcomes_.size() < kMostCodes) {
            outcomes_[{row[0], row[1]}] = row[2];
        }
    }
}

// A run that found mail says "walk-ended", with its time, just before "run-ended".
void Counters::addRun(const LogEntry& entry) {
    const bool timed = entry.word == "run-ended" &&
                       (valueIn(entry.text, " due=") != 0 || valueIn(entry.text, " waiting=") != 0);
    lastRunEnd_ = entry.time;
    lastRunSeconds_ = timed ? lastRunSeconds_ : valueIn(entry.text, " seconds=");
    lastRunStatus_ = entry.word == "stopped" ? valueIn(entry.text, " status=") : 0;
}

void Counters::add(const LogEntry& entry, std::time_t end) {
    // Each second is counted once, by the first look after it is over.
    if (entry.time < upTo_ || entry.time >= end) {
        return;
    }
    if (entry.word == "walk-ended" || entry.word == "run-ended" || entry.word == "stopped") {
        addRun(entry);
        return;
    }
    constexpr std::array<std::string_view, 5> kWords{"delivered", "return-delivered", "deferred",
                                                     "returned", "dropped"};
    for (const std::string_view word : kWords) {
        if (entry.word != word) {
            continue;
        }
        Outcome outcome(word == "return-delivered" ? "delivered" : word, entry.code);
        // Each code is a time series of its own for the collector, and servers choose the codes.
        if (outcomes_.find(outcome) == outcomes_.end() && outcomes_.size() >= kMostCodes) {
            outcome.second = kOther;
        }
        ++outcomes_[outcome];
    }
}

bool Counters::save(const std::string& file, std::time_t end) {
    upTo_ = end;
    Json rows = Json::array();
    for (const auto& [outcome, count] : outcomes_) {
        rows.push_back({outcome.first, outcome.second, count});
    }
    const Json object{{"up_to", upTo_},
                      {"last_run_end", lastRunEnd_},
                      {"last_run_seconds", lastRunSeconds_},
                      {"last_run_status", lastRunStatus_},
                      {"outcomes", std::move(rows)}};
    Email::FileReplacement replacement(file, kFileMode);
    return replacement.open() &&
           replacement.commit(
               object.dump(-1, ' ', false, Json::error_handler_t::replace).append("\n"));
}

} // namespace Retryq
