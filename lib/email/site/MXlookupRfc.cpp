// MXlookup by the rules of the Internet's own documents ("dns-rules rfc").
#include "email/base/Semaphore.h"
#include "email/site/MXlookup.h"
#include "email/site/MxAnswer.h"
#include "email/site/ServerNames.h"

#include <arpa/nameser.h>
#include <netdb.h>

#include <algorithm>
#include <random>
#include <vector>

namespace {

using Email::Candidate;
using Email::Exchanger;
using Fate = Candidate::Fate;

// Keeps what is met until it is known what becomes of it.
struct Met final : Email::ServerObserver {
    std::vector<Candidate> candidates;

    void met(const Candidate& candidate) override { candidates.push_back(candidate); }
};

std::minstd_rand& chance() {
    static std::minstd_rand numbers(std::random_device{}());
    return numbers;
}

// Only an answer that says so means that a name has no address; anything else may pass.
bool mayPass() noexcept {
    return h_errno != HOST_NOT_FOUND && h_errno != NO_DATA;
}

} // namespace

bool MXlookup::isThisHost(IPaddress address) {
    static const std::vector<IPaddress> own = interfaceAddresses();
    return isLocal(address) || Email::cannotBeForeign(address, own);
}

int MXlookup::lookUpByRfc(const char* domain, IPaddressList& out, int max, eventId& event) {
    std::vector<unsigned char> message(NS_MAXMSG);
    int length = NS_MAXMSG;
    switch (resolver_.Query(domain, ns_c_in, ns_t_mx, message.data(), length)) {
    case QUERY_OK:
        return useByRfc({message.data(), static_cast<std::size_t>(length)}, domain, out, max,
                        event);
    case QUERY_NO_DOMAIN:
        event = EV_MX_NO_DOMAIN;
        return -1;
    case QUERY_NO_RECORD:
        event = EV_MX_NO_RECORD;
        return takeOwnAddress(domain, out, max, event);
    default:
        event = EV_MX_TEMPFAIL;
        return 0;
    }
}

int MXlookup::useByRfc(std::span<const unsigned char> message, const char* domain,
                       IPaddressList& out, int max, eventId& event) {
    auto exchangers = Email::readExchangers(message);
    if (!exchangers) {
        event = EV_MX_TEMPFAIL; // half an answer may be a whole one next time
        return 0;
    }
    if (Email::isNullMx(*exchangers)) {
        return kNullMx;
    }
    event = exchangers->empty() ? EV_MX_NO_RECORD : EV_MX_NONE_LEFT;
    const std::vector<Email::Exchanger> gone = order(*exchangers);
    if (exchangers->empty()) {
        tell(gone, Fate::NotBetter);
        return takeOwnAddress(domain, out, max, event);
    }
    // The best ten: a domain with hundreds must not hold the walker with look-ups.
    exchangers->resize(std::min<std::size_t>(exchangers->size(), Resolver::kMaxExchangers));
    const std::span<const Email::Exchanger> all = *exchangers;
    std::size_t at = 0;
    bool better = true; // than this host
    while (better && at < all.size() && out.count() < max) {
        better = takeEquals(all, at, domain, out, max);
    }
    tell(all.subspan(at), better ? Fate::Enough : Fate::NotBetter);
    tell(gone, Fate::NotBetter);
    event = out.count() > 0 ? EV_NONE : EV_MX_NO_ADDRESS;
    return Semaphore::shuttingDown() ? -1 : out.count();
}

// Orders them and cuts the list at this host's name. Those that go are handed back for the
// observer.
std::vector<Exchanger> MXlookup::order(std::vector<Exchanger>& exchangers) const {
    std::vector<Exchanger> gone = observer_ == nullptr ? std::vector<Exchanger>() : exchangers;
    Email::orderExchangers(exchangers, chance(), hostName());
    std::erase_if(gone, [&exchangers](const Exchanger& one) {
        return one.name.empty() || std::ranges::any_of(exchangers, [&one](const Exchanger& left) {
                   return left.name == one.name && left.preference == one.preference;
               });
    });
    std::ranges::stable_sort(gone, {}, &Exchanger::preference);
    return gone;
}

// Takes the exchangers of one preference and moves `at` behind what was looked up. False, with none
// of them taken, when one of them is this host: mail that came this far goes to better ones only.
bool MXlookup::takeEquals(std::span<const Exchanger> exchangers, std::size_t& at,
                          const char* domain, IPaddressList& out, int max) {
    IPaddressList equals;
    Met met;
    bool better = true;
    const int preference = exchangers[at].preference;
    for (; better && at < exchangers.size() && exchangers[at].preference == preference; ++at) {
        const int before = equals.count();
        const Exchanger& asked = exchangers[at];
        hostLookup(asked.name.c_str(), equals, IPaddressList::kCapacity, false,
                   {observer_ == nullptr ? nullptr : &met, asked.name, preference});
        for (int i = before; i < equals.count(); ++i) {
            better = better && !isThisHost(equals.addr(i));
        }
        if (better) {
            Email::rememberServers(domain, equals, before, asked.name);
        }
    }
    if (better) {
        out.Add(equals, max);
    }
    tellEquals(met.candidates, better);
    return better;
}

void MXlookup::tellEquals(std::span<Candidate> met, bool better) const {
    for (Candidate& candidate : met) {
        if (candidate.address && isThisHost(*candidate.address)) {
            candidate.fate = Fate::ThisHost;
        } else if (candidate.address && !better) {
            candidate.fate = Fate::NotBetter;
        }
        observer_->met(candidate);
    }
}

int MXlookup::takeOwnAddress(const char* domain, IPaddressList& out, int max, eventId& event) {
    IPaddressList found;
    const Email::Asked asked{observer_, domain};
    if (observer_ != nullptr) {
        observer_->ownAddress(event);
    }
    if (hostLookup(domain, found, IPaddressList::kCapacity, false) < 0) {
        asked.tell(Fate::Unresolved);
        // Nobody said that there is no address.
        if (mayPass()) {
            event = EV_MX_TEMPFAIL;
            return 0;
        }
        return -1;
    }
    for (int i = 0; i < found.count() && out.count() < max; ++i) {
        const bool own = isThisHost(found.addr(i));
        asked.tell(own ? Fate::ThisHost : Fate::Taken, found.addr(i));
        if (!own) {
            out.Add(found.addr(i));
        }
    }
    Email::rememberServers(domain, out, 0, domain);
    return out.count();
}
