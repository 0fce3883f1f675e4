#include "retryq/Route.h"

#include "email/site/DomainRelay.h"
#include "email/site/MXlookup.h"
#include "email/site/RelayAccess.h"
#include "email/site/TlsPolicy.h"
#include "email/site/mailscanGlobals.h"
#include "email/smtp/ServerSearch.h"
#include "email/spool/MailList.h"
#include "fwall/hexesc.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <optional>
#include <utility>

namespace Retryq {

namespace {

using Email::Candidate;

constexpr std::size_t kShown = 256;

constexpr const char* kReturned = "the mail is returned to its sender at the next try";
constexpr const char* kWaits = "the mail stays in the queue and is tried again";
constexpr const char* kEnough = "enough addresses found before";

std::string text(IPaddress address) {
    std::array<char, IPaddress::kTextSize> out{};
    address.format(out.data());
    return out.data();
}

std::string whyLeftOut(Candidate::Fate fate) {
    switch (fate) {
    case Candidate::Fate::Taken:
        return "";
    case Candidate::Fate::Enough:
        return kEnough;
    case Candidate::Fate::Unresolved:
        return "does not resolve";
    case Candidate::Fate::Local:
        return "an address of this host (/etc/hosts)";
    case Candidate::Fate::ThisHost:
        return "an address of this host, or of no other";
    case Candidate::Fate::NotBetter:
        return "this host, or not better than it";
    }
    return "";
}

Server serverOf(const Candidate& candidate) {
    return {printable(std::string(candidate.name).c_str(), kShown),
            candidate.address ? text(*candidate.address) : "", candidate.preference,
            whyLeftOut(candidate.fate)};
}

std::int32_t lineOf(const RuleTable& table, const char* key) {
    const cfgrec* const record =
        table.records() == nullptr ? nullptr : cfg_get(key, table.records());
    return record == nullptr ? 0 : record->ln;
}

// As whom a relay is used; without a file that says so none is.
Server relayOf(const Candidate& candidate) {
    Server server = serverOf(candidate);
    const Email::RelayAccess& access = Email::relayAccess();
    if (const auto* const line = access.find(candidate.name)) {
        server.signsIn = printable(line->user, kShown) + " at " + printable(line->host, kShown) +
                         ":" + std::to_string(line->port);
    }
    if (!access.trouble().empty() && server.leftOut.empty()) {
        server.leftOut = "not used, the mail waits: relay-access " + access.trouble();
    }
    return server;
}

// A relay table with the lines that match a domain, and what was found when they were read.
class RelayLines final : private Email::ServerObserver {
public:
    explicit RelayLines(const char* key) : key_(key), table_(this) {}

    void read(const RuleTable& rules, const char* domain) {
        domain_ = domain;
        DomainRelay::relaysParam(table_, key_, rules.records());
    }

    DomainRelay& table() noexcept { return table_; }

    // The lines down to the one that decides, once the search has asked; nothing before, nor twice.
    std::optional<std::vector<Step>> takeAsked() {
        if (!decidedBy_) {
            return std::nullopt;
        }
        const auto decides = std::ranges::find(steps_, *decidedBy_, &Step::line);
        for (auto step = steps_.begin(); step != decides; ++step) {
            step->text += ": without effect, no server is left";
        }
        if (decides != steps_.end()) {
            decides->text +=
                decides->usable() ? "" : ": no server is left now, the mail waits for one";
            steps_.erase(decides + 1, steps_.end());
        }
        decidedBy_.reset();
        return std::move(steps_);
    }

private:
    // A run looks up the relays of all domains, an administrator waits for those of one. The last
    // line of the table comes first.
    bool concerns(const cfgrec& line) override {
        if (!DRinfo(line.argv[0]).matches(domain_)) {
            return false;
        }
        steps_.insert(steps_.begin(), Step{key_, line.ln,
                                           std::string("the pattern ") +
                                               printable(line.argv[0], kShown) + " matches"});
        return true;
    }
    void met(const Candidate& candidate) override {
        steps_.front().servers.push_back(relayOf(candidate));
    }
    void relaysDecided(std::int32_t line) override { decidedBy_ = line; }

    const char* key_;
    const char* domain_ = "";
    std::vector<Step> steps_;
    std::optional<std::int32_t> decidedBy_; // 0: no line did
    DomainRelay table_;
};

// Drives the client's search, takes none of the servers, and writes down what it is told.
class RouteFinder final : private Email::ServerSearch::Driver, private Email::ServerObserver {
public:
    RouteFinder(const RuleTable& rules, const std::string& address)
        : rules_(rules), rcpt_(address.c_str(), nullptr, IDS_NO_REASON) {
        route_.address = rcpt_.text();
    }

    Route find() {
        Email::Attempt unused;
        SMTPcode code = COMMS_FAILED;
        Email::ServerSearch(*this, unused, relays_.table(), fallback_.table()).run(code, rcpt_);
        route_.failing = MailList::deferCode(code) ? kWaits : kReturned;
        return std::move(route_);
    }

private:
    bool timeIsUp() override { return false; }
    Email::ServerObserver* observer() noexcept override { return this; }

    void headsFor(const Email::Destination& to) override {
        using Kind = Email::Destination::Kind;
        route_.domain = to.domain.data();
        literal_ = to.kind == Kind::Literal;
        if (to.kind == Kind::Direct) {
            route_.port = to.port;
            addStep("direct", "direct-send-domains and send-port apply",
                    lineOf(rules_, "direct-send-domains"));
        } else if (to.kind != Kind::ThisHost && Email::tlsPolicy().wanted()) {
            route_.tls = tlsWord(Email::tlsPolicy().levelFor(to.asked()));
        }
        if (to.kind == Kind::Direct || to.kind == Kind::Routed) {
            // Only now: a literal, or mail that is refused, needs no relay looked up.
            relays_.read(rules_, to.asked());
            fallback_.read(rules_, to.asked());
        }
    }

    void passed(eventId event) override {
        switch (event) {
        case EV_BAD_DOMAIN:
            route_.refused = "the address has no domain";
            break;
        case EV_SELF_SEND:
            route_.refused = "the destination is this host, whose own proxy listens on that port "
                             "(bind-port)";
            break;
        case EV_MX_START:
            askedFrom_ = route_.steps.size();
            break;
        case EV_RELAY_FOUND:
        case EV_NONE: // the event of a relay table that has no relay
            addRelays();
            break;
        default:
            break;
        }
    }

    void addRelays() {
        if (auto steps = relays_.takeAsked()) {
            std::ranges::move(*steps, std::back_inserter(route_.steps));
        }
        if (auto steps = fallback_.takeAsked()) {
            if (!askedFrom_) {
                addStep("exchangers", "not looked up: use-dns is off", lineOf(rules_, "use-dns"));
            }
            std::ranges::move(*steps, std::back_inserter(route_.steps));
        }
    }

    // The servers that the client would try: those met since the last offer, down to its limit.
    bool offer(const IPaddressList& servers, int /*port*/) override {
        int next = 0;
        for (; offered_ < route_.steps.size(); ++offered_) {
            for (Server& server : route_.steps[offered_].servers) {
                if (!server.leftOut.empty()) {
                    continue;
                }
                const bool tried =
                    next < servers.count() && server.address == text(servers.addr(next));
                next += tried ? 1 : 0;
                server.leftOut = tried ? "" : kEnough;
            }
        }
        for (; next < servers.count() && !route_.steps.empty(); ++next) {
            route_.steps.back().servers.push_back({"", text(servers.addr(next))}); // has no name
        }
        return false;
    }

    // As the client: without its file no relay is used, and the mail waits for it.
    bool offerRelays(const IPaddressList& servers, const DomainRelay& /*relays*/) override {
        accessFailed_ = !Email::relayAccess().trouble().empty();
        if (accessFailed_) {
            offered_ = route_.steps.size();
            return false;
        }
        return offer(servers, Email::kMailPort);
    }
    bool mayPass() override { return accessFailed_; }

    void met(const Candidate& candidate) override {
        if (!answered()) {
            addStep(literal_ ? "literal" : "exchangers",
                    literal_ ? "the domain is an address"
                    : mailscanGlobals::dnsRules == 0
                        ? "MX records of the domain, best first"
                        : "MX records of the domain, best first, equal ones in any order");
        }
        Server server = serverOf(candidate);
        if (candidate.fate == Candidate::Fate::Taken && candidate.address &&
            MXlookup::isThisHost(*candidate.address)) {
            server.warning = "leads to this host: an address of its own that /etc/hosts lacks";
        }
        route_.steps.back().servers.push_back(std::move(server));
    }

    void ownAddress(eventId why) override {
        if (answered()) {
            route_.steps.back().text = "MX records of the domain, none better than this host";
        }
        addStep("own-address",
                std::string(why == EV_MX_NONE_LEFT ? "no mail exchanger is left"
                                                   : "the domain has no mail exchanger") +
                    ": the domain's own address is used");
    }

    void lookedUp(int result, eventId event) override {
        if (answered()) {
            return;
        }
        addStep("exchangers", result == MXlookup::kNullMx ? "the domain says that it takes no mail"
                              : event == EV_MX_NO_DOMAIN  ? "the domain does not exist"
                              : event == EV_MX_TEMPFAIL   ? "the name service gives no answer now"
                                                          : "the name service's answer is damaged");
    }

    // True when the look-up at hand has a step already.
    [[nodiscard]] bool answered() const noexcept {
        return route_.steps.size() > askedFrom_.value_or(0);
    }

    void addStep(const char* name, std::string words, std::int32_t line = 0) {
        route_.steps.push_back({name, line, std::move(words)});
    }

    const RuleTable& rules_;
    EmailAddr rcpt_;
    RelayLines relays_{"domain-relay"};
    RelayLines fallback_{"fallback-relay"};
    bool literal_ = false;
    bool accessFailed_ = false;
    std::optional<std::size_t> askedFrom_; // steps there were when exchangers were asked for
    std::size_t offered_ = 0;              // steps whose servers the client has been offered
    Route route_;
};

} // namespace

bool Step::usable() const noexcept {
    return std::ranges::any_of(servers, [](const Server& s) { return s.leftOut.empty(); });
}

Route findRoute(const RuleTable& table, const std::string& address) {
    Email::relayAccess().load(mailscanGlobals::relayAccessFile);
    return RouteFinder(table, address).find();
}

} // namespace Retryq
