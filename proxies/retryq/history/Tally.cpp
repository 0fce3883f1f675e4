#include "retryq/history/Tally.h"

#include "email/base/LowerCase.h"

#include <algorithm>
#include <string_view>

namespace Retryq {

namespace {

constexpr std::time_t kHour = 3600;
constexpr std::time_t kLongestRun = 43200; // seconds; after more, a process id is another run's
constexpr std::string_view kDigits = "0123456789";

bool outcomeOf(std::string_view word, Outcomes& outcome) noexcept {
    if (word == "delivered" || word == "return-delivered") {
        outcome.delivered = 1;
    } else if (word == "deferred") {
        outcome.deferred = 1;
    } else if (word == "returned") {
        outcome.returned = 1;
    } else if (word == "dropped" || word == "return-lost") {
        outcome.dropped = 1;
    } else {
        return false;
    }
    return true;
}

void assignDomain(std::string_view address, std::string& domain) {
    const std::size_t at = address.rfind('@');
    address.remove_prefix(at == std::string_view::npos ? address.size() : at + 1);
    address = address.substr(0, address.find('>'));
    domain.assign(address.empty() ? "-" : address);
    std::ranges::transform(domain, domain.begin(), Email::lowerCase);
}

template<typename Value>
Value& at(std::unordered_map<std::string, Value>& map, const std::string& key) {
    const auto found = map.find(key);
    if (found != map.end()) {
        return found->second;
    }
    // Senders choose domains and servers their words: what is counted apart is bounded.
    return map[map.size() < Tally::kMostKeys ? key : Tally::kOthers];
}

template<typename Value, typename Weight>
Tally::Ranked<Value> ranked(const std::unordered_map<std::string, Value>& map, std::size_t n,
                            Weight weight) {
    Tally::Ranked<Value> rows(map.begin(), map.end());
    const auto before = [&](const auto& a, const auto& b) {
        return weight(a.second) != weight(b.second) ? weight(a.second) > weight(b.second)
                                                    : a.first < b.first;
    };
    const auto end = rows.begin() + static_cast<std::ptrdiff_t>(std::min(n, rows.size()));
    std::partial_sort(rows.begin(), end, rows.end(), before);
    rows.erase(end, rows.end());
    return rows;
}

} // namespace

Outcomes& Outcomes::operator+=(const Outcomes& other) noexcept {
    delivered += other.delivered;
    deferred += other.deferred;
    returned += other.returned;
    dropped += other.dropped;
    return *this;
}

std::string reasonKey(std::string_view words) {
    std::string key;
    // Numbers in the words (queue names, sizes, times) differ from line to line; the codes in front
    // tell.
    const std::size_t codes = words.find_first_not_of("0123456789. ");
    if (codes == std::string_view::npos) {
        return std::string(words);
    }
    key = words.substr(0, codes);
    for (std::size_t i = codes; i < words.size();) {
        const std::size_t number = std::min(words.find_first_of(kDigits, i), words.size());
        key += words.substr(i, number - i);
        key += number < words.size() ? "#" : "";
        i = std::min(words.find_first_not_of(kDigits, number), words.size());
    }
    return key;
}

void Tally::add(const LogEntry& entry, std::time_t since) {
    if (entry.time < since) {
        return;
    }
    ++lines_;
    if (Outcomes outcome; outcomeOf(entry.word, outcome)) {
        addOutcome(entry, outcome);
    }
    addServer(entry);
}

// The sender was told of a lost return mail's recipients already in the line that returned them.
void Tally::addOutcome(const LogEntry& entry, const Outcomes& outcome) {
    if (entry.word == "return-lost") {
        return;
    }
    total_ += outcome;
    hours_[entry.time - entry.time % kHour] += outcome;
    assignDomain(entry.recipient, key_);
    at(domains_, key_) += outcome;
    if (outcome.failed() != 0) {
        addReason(entry);
    }
    if (outcome.returned != 0) {
        key_.assign(entry.message);
        ReturnCount& count = at(returns_, key_);
        ++count.recipients;
        count.sender = entry.sender;
    }
}

void Tally::addReason(const LogEntry& entry) {
    const bool own = entry.reply.empty();
    std::string words(own ? entry.reason : entry.reply);
    if (own) {
        words.insert(0, std::string(entry.code) + ' ');
    }
    ReasonCount& count = at(reasons_, reasonKey(words));
    if (count.recipients++ == 0) {
        count.words = std::move(words);
        count.server = own ? std::string_view() : entry.relay;
    }
}

void Tally::addServer(const LogEntry& entry) {
    if (runs_.size() >= kMostKeys) {
        runs_.clear();
    }
    // A process does one thing at a time: what passed since its line before went to this line's
    // server. The log has no other measure of it.
    const auto [run, first] = runs_.try_emplace(entry.pid, entry.time);
    const std::time_t held = entry.time - run->second;
    run->second = entry.time;
    if (entry.relay.empty() || first || held < 0 || held > kLongestRun) {
        return;
    }
    key_.assign(entry.relay);
    ServerTime& server = at(servers_, key_);
    ++server.lines;
    server.seconds += held;
    server.longest = std::max<std::int64_t>(server.longest, held);
}

Tally::Ranked<Outcomes> Tally::domains(std::size_t n) const {
    return ranked(domains_, n, [](const Outcomes& o) {
        return std::pair(o.failed(), o.failed() + o.delivered);
    });
}

Tally::Ranked<ReasonCount> Tally::reasons(std::size_t n) const {
    return ranked(reasons_, n, [](const ReasonCount& r) { return r.recipients; });
}

Tally::Ranked<ServerTime> Tally::servers(std::size_t n) const {
    return ranked(servers_, n, [](const ServerTime& s) { return s.seconds; });
}

Tally::Ranked<ReturnCount> Tally::returns(std::size_t n) const {
    return ranked(returns_, n, [](const ReturnCount& r) { return r.recipients; });
}

} // namespace Retryq
