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
    Email::orderExchangers(*exchangers, chance(), hostName());
    if (exchangers->empty()) {
        return takeOwnAddress(domain, out, max, event);
    }
    exchangers->resize(std::min<std::size_t>(exchangers->size(), Resolver::kMaxExchangers));
    for (std::size_t at = 0; at < exchangers->size() && out.count() < max;) {
        if (!takeEquals(*exchangers, at, domain, out, max)) {
            break;
        }
    }
    event = out.count() > 0 ? EV_NONE : EV_MX_NO_ADDRESS;
    return Semaphore::shuttingDown() ? -1 : out.count();
}

// Takes the exchangers of one preference and moves `at` behind them. False, with none of them
// taken, when one of them is this host: mail that came this far goes to better ones only.
bool MXlookup::takeEquals(const std::vector<Email::Exchanger>& exchangers, std::size_t& at,
                          const char* domain, IPaddressList& out, int max) {
    IPaddressList equals;
    const int preference = exchangers[at].preference;
    for (; at < exchangers.size() && exchangers[at].preference == preference; ++at) {
        const int before = equals.count();
        hostLookup(exchangers[at].name.c_str(), equals, IPaddressList::kCapacity, false);
        for (int i = before; i < equals.count(); ++i) {
            if (isThisHost(equals.addr(i))) {
                return false;
            }
        }
        Email::rememberServers(domain, equals, before, exchangers[at].name);
    }
    out.Add(equals, max);
    return true;
}

int MXlookup::takeOwnAddress(const char* domain, IPaddressList& out, int max, eventId& event) {
    IPaddressList found;
    if (hostLookup(domain, found, IPaddressList::kCapacity, false) < 0) {
        if (mayPass()) {
            event = EV_MX_TEMPFAIL;
            return 0;
        }
        return -1;
    }
    for (int i = 0; i < found.count() && out.count() < max; ++i) {
        if (!isThisHost(found.addr(i))) {
            out.Add(found.addr(i));
        }
    }
    Email::rememberServers(domain, out, 0, domain);
    return out.count();
}
