#include "email/site/DomainRelay.h"

#include "email/base/Assert.h"
#include "email/site/RelayAccess.h"
#include "email/site/ServerNames.h"
#include "email/site/mailscanGlobals.h"
#include "fwall/config.h"

#include <strings.h>

#include <algorithm>
#include <new>
#include <string_view>

namespace {

constexpr const char* kUnit = "lib/email/DomainRelay";

std::string copyOfPattern(const char* pattern) {
    try {
        return pattern;
    } catch (const std::bad_alloc&) {
        assert_failure("name", kUnit, contractLine(77));
    }
}

DRinfo::MatchType typeOf(std::string_view pattern) noexcept {
    if (pattern == "*") {
        return DRinfo::ALL;
    }
    return pattern.starts_with("*.") ? DRinfo::SUFFIX : DRinfo::EXACT;
}

std::string_view withoutTrailingDot(std::string_view name) noexcept {
    if (name.ends_with('.')) {
        name.remove_suffix(1);
    }
    return name;
}

bool sameIgnoringCase(std::string_view a, std::string_view b) noexcept {
    return a.size() == b.size() && ::strncasecmp(a.data(), b.data(), a.size()) == 0;
}

// `below` is the pattern without its asterisk, so that it begins with a dot; "*.x" stands for x as
// well as for what ends in ".x".
bool matchesSuffix(std::string_view domain, std::string_view below) noexcept {
    const std::string_view suffix = withoutTrailingDot(below);
    if (suffix.empty() || domain.empty()) {
        return suffix.empty();
    }
    const std::string_view name = withoutTrailingDot(domain);
    const std::string_view base = suffix.substr(1);
    if (name.size() <= base.size()) {
        return sameIgnoringCase(name, base);
    }
    return sameIgnoringCase(name.substr(name.size() - suffix.size()), suffix);
}

// The last character of a name without a trailing dot is not compared: mail.example.org stands for
// mail.example.orx too. Tables in use rely on what this has matched ever since.
int comparedLength(std::string_view name) noexcept {
    return static_cast<int>(name.size()) - (name.ends_with('.') ? 0 : 1);
}

bool matchesExactly(std::string_view domain, std::string_view pattern) noexcept {
    const int length = comparedLength(domain);
    const auto compared = static_cast<std::size_t>(std::max(0, length));
    return length == comparedLength(pattern) &&
           sameIgnoringCase(domain.substr(0, compared), pattern.substr(0, compared));
}

} // namespace

// In this order and before main(): their construction finds this host's name.
DomainRelay DomainRelay::stdRelays;
DomainRelay DomainRelay::fallbackRelays;

DRinfo::DRinfo(const char* pattern, std::int32_t line)
    : type_(typeOf(pattern)), name_(copyOfPattern(pattern)), line_(line) {}

bool DRinfo::matches(const char* domain) const noexcept {
    switch (type_) {
    case ALL:
        return true;
    case SUFFIX:
        return matchesSuffix(domain, std::string_view(name_).substr(1));
    default:
        return matchesExactly(domain, name_);
    }
}

void DRinfo::lookUp(std::span<char* const> relays, int limit, Email::ServerObserver* observer) {
    limit_ = limit;
    for (const char* relay : relays) {
        const Email::Asked asked{observer, relay};
        if (count() < limit) {
            relays_.emplace_back(count(), relay);
            missing_ = HostList::hostLookup(relay, *this, limit, true, asked) < 0 || missing_;
        } else {
            asked.tell(Email::Candidate::Fate::Enough);
        }
    }
}

void DRinfo::lookUpAgain() {
    const auto now = std::chrono::steady_clock::now();
    if (!missing_ || mailscanGlobals::dnsRules == 0 || now < askAgain_) {
        return;
    }
    DRinfo fresh(name_.c_str(), line_);
    std::vector<char*> names;
    for (auto& [place, relay] : relays_) {
        names.push_back(relay.data());
    }
    fresh.lookUp(names, limit_);
    fresh.askAgain_ = now + std::chrono::seconds(kRetrySeconds);
    *this = std::move(fresh);
}

// From the last relay on: a name that is noted stays, so each relay gets what is left behind its
// first address.
void DRinfo::noteServers(const char* domain) const {
    for (auto relay = relays_.rbegin(); relay != relays_.rend(); ++relay) {
        Email::rememberServers(domain, *this, relay->first, relay->second,
                               Email::NamedBy::RuleTable);
    }
}

// The last relay whose addresses begin at the address's place or before: one that did not resolve
// has none, and begins where the next does.
std::string_view DRinfo::relayOf(IPaddress address) const noexcept {
    int place = 0;
    while (place < count() && addr(place) != address) {
        ++place;
    }
    std::string_view name;
    for (const auto& [begin, relay] : relays_) {
        name = begin <= place && place < count() ? std::string_view(relay) : name;
    }
    return name;
}

void DomainRelay::initialise(cfgrec* cfg) {
    relaysParam(stdRelays, "domain-relay", cfg);
    relaysParam(fallbackRelays, "fallback-relay", cfg);
    Email::relayAccess().load(mailscanGlobals::relayAccessFile);
}

void DomainRelay::relaysParam(DomainRelay& relays, const char* key, cfgrec* cfg) {
    relays.Clear();
    if (cfg == nullptr) {
        return; // asked without a list, cfg_get() would go on where some other search ended
    }
    if (cfgrec* line = cfg_get(key, cfg); line != nullptr) {
        relaysParamR(relays, key, line);
    }
}

void DomainRelay::relaysParamR(DomainRelay& relays, const char* key, cfgrec* line) {
    // The head of a table is what was added last: so the last line is read first.
    std::vector<cfgrec*> lines;
    for (; line != nullptr; line = cfg_next(key, line)) {
        lines.push_back(line);
    }
    for (auto cf = lines.rbegin(); cf != lines.rend(); ++cf) {
        if ((*cf)->argc <= 1) {
            assert_failure("cf->argc > 1", kUnit, contractLine(213));
        }
        if (relays.observer_ == nullptr || relays.observer_->concerns(**cf)) {
            relays.add(DRinfo((*cf)->argv[0], (*cf)->ln),
                       {(*cf)->argv + 1, static_cast<std::size_t>((*cf)->argc) - 1});
        }
    }
}

void DomainRelay::AddDomain(const char* pattern, char** hosts, int n) {
    add(DRinfo(pattern), {hosts, static_cast<std::size_t>(std::max(0, n))});
}

void DomainRelay::add(DRinfo entry, std::span<char* const> hosts) {
    const int limit = std::min<int>(mailscanGlobals::max_addr_to_try, IPaddressList::kCapacity);
    entry.lookUp(hosts, limit, observer_);
    if (entry.count() > 0 || mailscanGlobals::dnsRules != 0) {
        table_.push_back(std::move(entry));
    }
}

void DomainRelay::Clear() noexcept {
    table_.clear();
}

std::string_view DomainRelay::relayOf(const char* domain, IPaddress address) const noexcept {
    const auto head = std::find_if(table_.rbegin(), table_.rend(),
                                   [domain](const DRinfo& entry) { return entry.matches(domain); });
    return head == table_.rend() ? std::string_view() : head->relayOf(address);
}

int DomainRelay::getAddresses(const char* domain, IPaddressList& out, int max, eventId& event) {
    event = EV_NONE;
    const auto head = std::find_if(table_.rbegin(), table_.rend(),
                                   [&](const DRinfo& entry) { return entry.matches(domain); });
    if (observer_ != nullptr) {
        observer_->relaysDecided(head == table_.rend() ? 0 : head->line());
    }
    if (head == table_.rend()) {
        return 0;
    }
    // With "dns-rules rfc" only; else a relay is looked up once a run.
    head->lookUpAgain();
    head->noteServers(domain);
    return head->count() == 0 ? -1 : out.Add(*head, max);
}
