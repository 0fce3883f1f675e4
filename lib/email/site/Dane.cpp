#include "email/site/Dane.h"

#include "email/base/LowerCase.h"
#include "email/site/DnsAnswer.h"
#include "email/site/HostList.h"
#include "email/site/MxAnswer.h"
#include "email/site/Resolver.h"
#include "email/site/TlsaAnswer.h"

#include <arpa/nameser.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <utility>

namespace Email {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kTypeTlsa = 52;
constexpr std::size_t kMostKept = 1024;

struct Answer {
    int result = 0; // of Resolver::Query()
    std::vector<unsigned char> message{};

    [[nodiscard]] bool denies() const noexcept {
        return result == QUERY_NO_DOMAIN || result == QUERY_NO_RECORD;
    }
    [[nodiscard]] bool validated() const noexcept { return isValidated(message); }
};

// The name is asked for as it stands, never with a domain of the search list behind it.
Answer ask(const std::string& name, int type) {
    Answer answer{0, std::vector<unsigned char>(NS_MAXMSG)};
    int length = NS_MAXMSG;
    answer.result =
        Resolver().Query((name + ".").c_str(), ns_c_in, type, answer.message.data(), length);
    answer.message.resize(answer.result == QUERY_OK ? static_cast<std::size_t>(length) : 0);
    return answer;
}

DaneVerdict verdict(DaneResult result, std::string why) {
    DaneVerdict made;
    made.result = result;
    made.why = std::move(why);
    return made;
}

DaneVerdict failed(const std::string& what, const std::string& name) {
    return verdict(DaneResult::Failed, what + " of " + name + " cannot be looked up now");
}

std::string plainName(std::string name) {
    if (name.ends_with('.')) {
        name.pop_back();
    }
    return inLowerCase(std::move(name));
}

// Usable: the exchangers are validated, and are `names`. Otherwise what follows from it.
DaneVerdict findExchangers(const std::string& domain) {
    const Answer mx = ask(domain, ns_t_mx);
    const auto exchangers = mx.result == QUERY_OK ? readExchangers(mx.message) : std::nullopt;
    if (!exchangers) {
        return failed("the MX records", domain);
    }
    if (!mx.validated()) {
        return verdict(DaneResult::NoRecords, "the MX records of " + domain + " are not validated");
    }
    DaneVerdict found = verdict(DaneResult::Usable, "");
    std::ranges::transform(*exchangers, std::back_inserter(found.names),
                           [](const Exchanger& exchanger) { return plainName(exchanger.name); });
    return found;
}

// The names below which the host's records may stand, best first (RFC 7672, 2.2.2): what its alias
// leads to, and its own. Usable, or what follows.
DaneVerdict findBases(const std::string& host) {
    const Answer address = ask(host, ns_t_a);
    const auto records = address.result == QUERY_OK ? readAnswer(address.message) : std::nullopt;
    if (!records && !address.denies()) {
        return failed("the address", host);
    }
    DaneVerdict bases = verdict(DaneResult::Usable, "");
    const bool alias =
        records && std::ranges::find(*records, ns_t_cname, &DnsRecord::type) != records->end();
    if (address.validated()) {
        bases.names.push_back(plainName(records->empty() ? host : records->back().owner));
        if (bases.names.front() != host) {
            bases.names.push_back(host);
        }
        return bases;
    }
    // An alias that leads out of what is validated may be validated itself.
    const Answer itself = alias ? ask(host, ns_t_cname) : Answer{QUERY_NO_RECORD};
    if (itself.result != QUERY_OK && !itself.denies()) {
        return failed("the alias", host);
    }
    if (!itself.validated()) {
        return verdict(DaneResult::NoRecords, "the address of " + host + " is not validated");
    }
    bases.names.push_back(host);
    return bases;
}

// Records that stand below one name; NoRecords without any.
DaneVerdict findRecords(const std::string& base, int port) {
    const std::string name = "_" + std::to_string(port) + "._tcp." + base;
    const Answer answer = ask(name, kTypeTlsa);
    auto records = answer.result == QUERY_OK ? readTlsa(answer.message) : std::nullopt;
    if (!records && !answer.denies()) {
        return failed("the TLSA records", name);
    }
    if (!records || records->empty() || !answer.validated()) {
        return verdict(DaneResult::NoRecords, "no validated TLSA records of " + name);
    }
    std::erase_if(*records, [](const std::string& record) { return !isUsableTlsa(record); });
    if (records->empty()) {
        return verdict(DaneResult::Unusable, "no usable TLSA record of " + name);
    }
    return {DaneResult::Usable, std::move(*records), {base}, ""};
}

DaneVerdict findHost(const std::string& host, int port) {
    DaneVerdict bases = findBases(host);
    if (bases.result != DaneResult::Usable) {
        return bases;
    }
    DaneVerdict found;
    for (const std::string& base : bases.names) {
        found = findRecords(base, port);
        if (found.result != DaneResult::NoRecords) {
            break;
        }
    }
    if (found.result == DaneResult::Usable && found.names.front() != host) {
        found.names.push_back(host);
    }
    return found;
}

// What was found out of a host and a port, or of a domain (port 0), while it is good.
class Kept {
public:
    // Nothing when it is not known and may not be asked for.
    std::optional<DaneVerdict> get(const std::string& name, int port, bool mayAsk) {
        const auto at = entries_.find({name, port});
        if (at != entries_.end() && at->second.expiry > Clock::now()) {
            return at->second.found;
        }
        return mayAsk ? std::optional(keep(name, port)) : std::nullopt;
    }

private:
    struct Entry {
        DaneVerdict found;
        Clock::time_point expiry;
    };

    // Dropping all when there are many costs a question more for each, and no order to keep.
    DaneVerdict keep(const std::string& name, int port) {
        DaneVerdict found = port == 0 ? findExchangers(name) : findHost(name, port);
        if (entries_.size() >= kMostKept) {
            entries_.clear();
        }
        entries_.insert_or_assign({name, port},
                                  Entry{found, Clock::now() + std::chrono::seconds(kDaneSeconds)});
        return found;
    }

    std::map<std::pair<std::string, int>, Entry> entries_;
};

bool holds(const std::vector<std::string>& names, const std::string& name) {
    return std::ranges::find(names, name) != names.end();
}

// Set when the domain's records decide, and the host need not be asked for.
std::optional<DaneVerdict> decidedBy(const DaneVerdict& exchangers, const DaneServer& server) {
    if (exchangers.result != DaneResult::Usable) {
        return exchangers;
    }
    if (!holds(exchangers.names, server.host)) {
        return verdict(DaneResult::Failed,
                       server.host + " is not among the validated MX records of " + server.domain);
    }
    return std::nullopt;
}

// Nothing when it cannot be told without asking, and that must not be.
std::optional<DaneVerdict> judge(const DaneServer& server, bool mayAsk) {
    static Kept kept;
    if (server.host.empty() || HostList::onlyLiteralCharacters(server.host.c_str())) {
        return verdict(DaneResult::NoRecords, "the server has no name");
    }
    if (!server.domain.empty() && server.domain != server.host) {
        const auto exchangers = kept.get(server.domain, 0, mayAsk);
        auto decided = exchangers ? decidedBy(*exchangers, server) : exchangers;
        if (!exchangers || decided) {
            return decided;
        }
    }
    auto found = kept.get(server.host, server.port, mayAsk);
    // A certificate may also name what the mail is for.
    if (found && found->result == DaneResult::Usable && !server.domain.empty() &&
        !holds(found->names, server.domain)) {
        found->names.push_back(server.domain);
    }
    return found;
}

DaneServer plain(const DaneServer& server) {
    return {plainName(server.domain), plainName(server.host), server.port};
}

} // namespace

DaneVerdict askDane(const DaneServer& server) {
    return judge(plain(server), true).value_or(DaneVerdict{});
}

std::optional<DaneVerdict> knownDane(const DaneServer& server) {
    return judge(plain(server), false);
}

} // namespace Email
