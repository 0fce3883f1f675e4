// The administrator's relay tables: for a pattern of destination domains, the servers that mail
// for them must go through. Relay names are resolved once, when the table is read; delivery only
// copies addresses. The tables are filled before the walk begins and only read afterwards.
#pragma once

#include "email/site/HostList.h"

#include <chrono>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

struct cfgrec;

// One table entry: a pattern and its relay addresses.
class DRinfo final : public IPaddressList {
public:
    enum MatchType : std::int32_t { EXACT = 0, SUFFIX = 1, ALL = 2 };

    // "*" matches all, "*.x" matches x and everything below it, anything else matches itself.
    // `line` is its line of the rule table, for observers.
    explicit DRinfo(const char* pattern, std::int32_t line = 0);

    // Case is ignored. A suffix pattern and the domain may each end in a dot; an exact pattern that
    // ends in a dot matches only a domain that does so too, and the reverse.
    [[nodiscard]] bool matches(const char* domain) const noexcept;

    // Looks the relays up anew, up to `limit` addresses. Names that do not resolve, and addresses
    // of this host, are left out.
    void lookUp(std::span<char* const> relays, int limit,
                Email::ServerObserver* observer = nullptr);
    // The same for the relays that it was made with, where some did not resolve: when mail first
    // comes for them, and then at most once in kRetrySeconds.
    void lookUpAgain();
    static constexpr int kRetrySeconds = 60;
    // Notes those names for a domain that goes through this entry (ServerNames.h).
    void noteServers(const char* domain) const;
    // The relay that has this address, as it was given; empty when none has.
    [[nodiscard]] std::string_view relayOf(IPaddress address) const noexcept;

    [[nodiscard]] std::int32_t line() const noexcept { return line_; }

private:
    std::vector<std::pair<int, std::string>> relays_; // the place of a relay's first address
    int limit_ = 0;
    bool missing_ = false;                             // a name did not resolve
    std::chrono::steady_clock::time_point askAgain_{}; // not before then

    MatchType type_;
    std::string name_;
    std::int32_t line_;
};

class DomainRelay : public HostList {
public:
    // The observer, if any, is told while the table is read and asked, and must live as long.
    explicit DomainRelay(Email::ServerObserver* observer = nullptr) noexcept
        : observer_(observer) {}

    // Fills both tables from the rule table's "domain-relay" and "fallback-relay" lines, and reads
    // the file of "relay-access".
    static void initialise(cfgrec* cfg);

    // Clears `relays` and reads the key's lines into it. A null list leaves it empty.
    static void relaysParam(DomainRelay& relays, const char* key, cfgrec* cfg);

    // Puts an entry for each of the key's lines from `line` on in front of the table, in the order
    // of the lines. A line of fewer than two words ends the run ("cf->argc > 1").
    static void relaysParamR(DomainRelay& relays, const char* key, cfgrec* line);

    // Resolves the relay hosts and puts the entry at the head of the table; a line whose hosts do
    // not resolve, or are all local, has no effect. With "dns-rules rfc" it stays, and names that
    // did not resolve are asked again when mail comes for it.
    void AddDomain(const char* pattern, char** hosts, int n);
    void Clear() noexcept;
    [[nodiscard]] bool empty() const noexcept { return table_.empty(); }

    // Appends the addresses of the first line that matches and returns the count of `out`; later
    // lines are not asked, even if it added nothing. 0 when none matches; -1 for a line that has no
    // server now, but may have one later. The event is always EV_NONE.
    int getAddresses(const char* domain, IPaddressList& out, int max, eventId& event) override;

    // The relay of the domain's line that has this address, as the table names it; empty for none.
    [[nodiscard]] std::string_view relayOf(const char* domain, IPaddress address) const noexcept;

    static DomainRelay stdRelays;      // asked before DNS
    static DomainRelay fallbackRelays; // asked when neither relay nor MX could be used

private:
    void add(DRinfo entry, std::span<char* const> hosts);

    Email::ServerObserver* observer_;
    std::vector<DRinfo> table_; // last entry first: the head of the table is at the back
};
