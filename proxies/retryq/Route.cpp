#include "retryq/Route.h"

#include "email/site/DomainRelay.h"
#include "email/site/Exchangers.h"
#include "email/site/MXlookup.h"
#include "email/site/MxAnswer.h"
#include "email/site/TlsPolicy.h"
#include "email/site/mailscanGlobals.h"
#include "email/smtp/Destination.h"
#include "email/spool/EmailAddr.h"
#include "fwall/hexesc.h"

#include <arpa/nameser.h>
#include <netdb.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <random>
#include <string_view>

namespace Retryq {

namespace {

constexpr int kClassIN = 1;
constexpr int kTypeMX = 15;
constexpr std::size_t kShown = 256;

constexpr const char* kReturned = "the mail is returned to its sender at the next try";
constexpr const char* kWaits = "the mail stays in the queue and is tried again";

std::string text(IPaddress address) {
    std::array<char, IPaddress::kTextSize> out{};
    address.format(out.data());
    return out.data();
}

enum class Source { Table, Outside };

bool byRfc() noexcept {
    return mailscanGlobals::dnsRules != 0;
}

// Mail that came as far as this host goes to better exchangers only.
void leaveOutBehindThisHost(Step& step) {
    const auto self = std::ranges::find_if(step.servers, [](const Server& server) {
        return !server.address.empty() && !server.leftOut.empty();
    });
    if (self == step.servers.end()) {
        return;
    }
    const std::optional<int> limit = self->preference;
    for (Server& server : step.servers) {
        if (server.preference >= limit && server.leftOut.empty()) {
            server.leftOut = "not better than this host";
        }
    }
}

// Collects the addresses of server names, under the limits that the finders obey. Those that come
// from outside may lead mail back to this host; the relays are the administrator's own choice.
class ServerCollector {
public:
    ServerCollector(Step& step, int max, Source source) : step_(step), max_(max), source_(source) {}

    // False when the name does not resolve.
    bool add(const char* name, std::optional<int> preference = {}) {
        const std::string shown = printable(name, kShown);
        if (used_ >= max_) {
            step_.servers.push_back({shown, "", preference, "enough addresses found before"});
            return true;
        }
        IPaddressList found;
        if (HostList::hostLookup(name, found, max_ - used_, false) < 0) {
            step_.servers.push_back({shown, "", preference, "does not resolve"});
            return false;
        }
        for (int i = 0; i < found.count(); ++i) {
            addAddress(shown, found.addr(i), preference);
        }
        return true;
    }

private:
    void addAddress(const std::string& name, IPaddress address, std::optional<int> preference) {
        const bool local = HostList::isLocal(address);
        const bool own = source_ == Source::Outside && Email::cannotBeForeign(address, own_);
        used_ += local || (own && byRfc()) ? 0 : 1;
        Server server{name, text(address), preference};
        if (local) {
            server.leftOut = "an address of this host (/etc/hosts)";
        } else if (own && byRfc()) {
            server.leftOut = "an address of this host, or of no other";
        } else if (own) {
            server.warning = "leads to this host: an address of its own that /etc/hosts lacks";
        }
        step_.servers.push_back(std::move(server));
    }

    Step& step_;
    int max_;
    Source source_;
    std::vector<IPaddress> own_ = HostList::interfaceAddresses();
    int used_ = 0;
};

// Keeps those that are better than this host; the others are told of.
void keepBetter(Email::Exchangers& mx, Step& step) {
    std::vector<Server> all;
    for (int i = 0; i < mx.count; ++i) {
        const auto at = static_cast<std::size_t>(i);
        all.push_back({printable(mx.names[at], kShown), "", mx.preferences[at],
                       "this host, or not better than it"});
    }
    Resolver::RemoveSameServerMXAnswers(mx.names.data(), mx.preferences.data(), mx.count);
    step.servers.insert(step.servers.end(), all.begin() + mx.count, all.end());
}

class RouteFinder {
public:
    RouteFinder(const RuleTable& table, const std::string& address)
        : table_(table), rcpt_(address.c_str(), nullptr, IDS_NO_REASON) {
        route_.address = rcpt_.text();
    }

    Route find() {
        using Kind = Email::Destination::Kind;
        const Email::Destination to = Email::Destination::of(rcpt_);
        if (to.kind == Kind::NoDomain) {
            return refuse("the address has no domain");
        }
        domain_ = to.domain.data();
        route_.domain = domain_;
        if (to.kind == Kind::ThisHost) {
            return refuse("the destination is this host, whose own proxy listens on that port "
                          "(bind-port)");
        }
        if (to.kind == Kind::Direct) {
            addDirect(to.port);
        } else if (Email::tlsPolicy().wanted()) {
            route_.tls = tlsWord(Email::tlsPolicy().levelFor(domain_.c_str()));
        }
        route_.failing = kWaits;
        if (to.kind == Kind::Literal) {
            addLiteral();
        } else {
            search(to.direct);
        }
        return std::move(route_);
    }

private:
    Route refuse(const std::string& why) {
        route_.refused = why;
        route_.failing = kReturned;
        return std::move(route_);
    }

    void addDirect(int port) {
        route_.port = port;
        Step step{"direct", lineOf("direct-send-domains"),
                  "direct-send-domains and send-port apply"};
        step.servers.push_back({"", text(IPaddress::loopback)});
        route_.steps.push_back(std::move(step));
    }

    void search(bool direct) {
        if (!direct && addRelays("domain-relay")) {
            return;
        }
        bool missing = false;
        if (mailscanGlobals::dnsEnable) {
            missing = byRfc() ? !addExchangersByRfc() : !addExchangers();
        } else {
            route_.steps.push_back(
                {"exchangers", lineOf("use-dns"), "not looked up: use-dns is off"});
        }
        if (!takesNoMail_) {
            addRelays("fallback-relay");
        }
        route_.failing = missing ? kReturned : kWaits;
    }

    void addLiteral() {
        Step step{"literal", 0, "the domain is an address"};
        ServerCollector(step, mailscanGlobals::max_addr_to_try, Source::Outside)
            .add(domain_.c_str());
        route_.steps.push_back(std::move(step));
    }

    // The first line that matches and has a server left decides.
    bool addRelays(const char* key) {
        cfgrec* record = table_.records() == nullptr ? nullptr : cfg_get(key, table_.records());
        for (; record != nullptr; record = cfg_next(key, record)) {
            if (!DRinfo(record->argv[0]).matches(domain_.c_str())) {
                continue;
            }
            Step step = relayStep(key, *record);
            const bool decided = step.usable();
            step.text += decided   ? ""
                         : byRfc() ? ": no server is left now, the mail waits for one"
                                   : ": without effect, no server is left";
            route_.steps.push_back(std::move(step));
            if (decided || byRfc()) {
                return true;
            }
        }
        return false;
    }

    static Step relayStep(const char* key, const cfgrec& record) {
        Step step{key, record.ln,
                  std::string("the pattern ") + printable(record.argv[0], kShown) + " matches"};
        const int limit = std::min<int>(mailscanGlobals::max_addr_to_try, IPaddressList::kCapacity);
        ServerCollector servers(step, limit, Source::Table);
        for (int i = 1; i < record.argc; ++i) {
            servers.add(record.argv[i]);
        }
        return step;
    }

    // False when the domain does not exist, or its answer cannot be used.
    bool addExchangers() {
        Resolver resolver;
        std::array<unsigned char, Resolver::kAnswerSize> answer{};
        int length = Resolver::kAnswerSize;
        switch (resolver.Query(domain_.c_str(), kClassIN, kTypeMX, answer.data(), length)) {
        case QUERY_OK:
            return useAnswer(resolver, answer.data(), length);
        case QUERY_TEMPORARY:
            route_.steps.push_back({"exchangers", 0, "the name service gives no answer now"});
            return true;
        case QUERY_NO_DOMAIN:
            route_.steps.push_back({"exchangers", 0, "the domain does not exist"});
            return false;
        default:
            return addOwnAddress("the domain has no mail exchanger");
        }
    }

    bool addExchangersByRfc() {
        Resolver resolver;
        std::vector<unsigned char> answer(NS_MAXMSG);
        int length = NS_MAXMSG;
        const int result =
            resolver.Query(domain_.c_str(), kClassIN, kTypeMX, answer.data(), length);
        std::optional<std::vector<Email::Exchanger>> mx;
        if (result == QUERY_OK) {
            mx = Email::readExchangers({answer.data(), static_cast<std::size_t>(length)});
        } else if (result == QUERY_NO_RECORD) {
            mx.emplace();
        } else if (result == QUERY_NO_DOMAIN) {
            route_.steps.push_back({"exchangers", 0, "the domain does not exist"});
            return false;
        }
        if (!mx) {
            route_.steps.push_back({"exchangers", 0, "the name service gives no answer now"});
            return true;
        }
        return useByRfc(*mx);
    }

    bool useByRfc(std::vector<Email::Exchanger>& mx) {
        takesNoMail_ = Email::isNullMx(mx);
        if (takesNoMail_) {
            route_.steps.push_back({"exchangers", 0, "the domain says that it takes no mail"});
            return false;
        }
        const bool some = !mx.empty();
        std::minstd_rand chance(std::random_device{}());
        Email::orderExchangers(mx, chance, HostList::hostName());
        if (mx.empty()) {
            return addOwnAddress(some ? "no mail exchanger is left"
                                      : "the domain has no mail exchanger");
        }
        Step step{"exchangers", 0, "MX records of the domain, best first, equal ones in any order"};
        ServerCollector servers(step, mailscanGlobals::max_addr_to_try, Source::Outside);
        for (const Email::Exchanger& exchanger : mx) {
            servers.add(exchanger.name.c_str(), exchanger.preference);
        }
        leaveOutBehindThisHost(step);
        route_.steps.push_back(std::move(step));
        return true;
    }

    bool useAnswer(Resolver& resolver, const unsigned char* answer, int length) {
        Email::Exchangers mx;
        if (!resolver.ParseQuery(answer, length, mx.names.data(), mx.preferences.data(),
                                 mx.count)) {
            route_.steps.push_back({"exchangers", 0, "the name service's answer is damaged"});
            return false;
        }
        Resolver::SortMXAnswers(mx.names.data(), mx.preferences.data(), mx.count);
        Step step{"exchangers", 0, "MX records of the domain, best first"};
        Step cut = step;
        keepBetter(mx, cut);
        if (mx.count == 0) {
            cut.text = "MX records of the domain, none better than this host";
            if (!cut.servers.empty()) {
                route_.steps.push_back(std::move(cut));
            }
            return addOwnAddress("no mail exchanger is left");
        }
        ServerCollector servers(step, mailscanGlobals::max_addr_to_try, Source::Outside);
        for (int i = 0; i < mx.count; ++i) {
            const auto at = static_cast<std::size_t>(i);
            servers.add(mx.names[at], mx.preferences[at]);
        }
        step.servers.insert(step.servers.end(), cut.servers.begin(), cut.servers.end());
        route_.steps.push_back(std::move(step));
        return true;
    }

    bool addOwnAddress(const std::string& why) {
        Step step{"own-address", 0, why + ": the domain's own address is used"};
        const bool found = ServerCollector(step, mailscanGlobals::max_addr_to_try, Source::Outside)
                               .add(domain_.c_str());
        route_.steps.push_back(std::move(step));
        return found || (byRfc() && h_errno != HOST_NOT_FOUND && h_errno != NO_DATA);
    }

    [[nodiscard]] std::int32_t lineOf(const char* key) const {
        const cfgrec* const record =
            table_.records() == nullptr ? nullptr : cfg_get(key, table_.records());
        return record == nullptr ? 0 : record->ln;
    }

    const RuleTable& table_;
    EmailAddr rcpt_;
    std::string domain_;
    bool takesNoMail_ = false;
    Route route_;
};

} // namespace

bool Step::usable() const noexcept {
    return std::ranges::any_of(servers, [](const Server& s) { return s.leftOut.empty(); });
}

Route findRoute(const RuleTable& table, const std::string& address) {
    return RouteFinder(table, address).find();
}

} // namespace Retryq
