#include "email/smtp/ServerSearch.h"

#include "email/site/MXlookup.h"
#include "email/site/mailscanGlobals.h"

namespace Email {

bool ServerSearch::run(SMTPcode& code, EmailAddr& rcpt) {
    using Kind = Destination::Kind;
    const Destination to = Destination::of(rcpt);
    if (!begin(code, to)) {
        return false;
    }
    switch (to.kind) {
    case Kind::ThisHost:
        driver_.passed(EV_SELF_SEND);
        code = SELFSEND;
        return false;
    case Kind::Literal:
        return offerLiteral(rcpt);
    default:
        // Without the gateway's own server such mail still goes by the exchangers of its domain.
        return (to.direct && offerOwnServer(to.port)) || offerRouted(code, to, rcpt);
    }
}

// Up to the point where it is known for which domain servers are looked for.
bool ServerSearch::begin(SMTPcode& code, const Destination& to) {
    if (driver_.timeIsUp()) {
        code = TIMEOUTEXPIRED;
        return false;
    }
    code = COMMS_FAILED;
    driver_.passed(EV_CHOOSE_SERVER);
    if (to.kind == Destination::Kind::NoDomain) {
        driver_.passed(EV_BAD_DOMAIN);
        code = BADHOSTNAME;
        return false;
    }
    if (to.direct) {
        driver_.passed(EV_DIRECT);
    }
    driver_.headsFor(to);
    return true;
}

bool ServerSearch::offerOwnServer(int port) {
    IPaddressList loopback;
    loopback.Add(IPaddress::loopback);
    return driver_.offer(loopback, port);
}

bool ServerSearch::offerLiteral(EmailAddr& rcpt) {
    IPaddressList list;
    return exchangersOf(rcpt, list) >= 1 && driver_.offer(list, kMailPort);
}

bool ServerSearch::offerRouted(SMTPcode& code, const Destination& to, EmailAddr& rcpt) {
    bool tried = false;
    if (!to.direct) {
        if (tryRelays(relays_, to.asked(), tried)) {
            return true;
        }
        // The administrator said that this domain's mail goes through these relays: nowhere else.
        if (tried) {
            return false;
        }
    }
    if (mailscanGlobals::dnsEnable && offerExchangers(code, rcpt)) {
        return true;
    }
    if (code == TAKES_NO_MAIL) {
        return false;
    }
    if (tryRelays(fallback_, to.asked(), tried)) {
        return true;
    }
    if (!known_.server) {
        known_.noneFound("");
    }
    code = driver_.mayPass() ? COMMS_FAILED : code;
    // That a domain does not exist stays true, however late it was learnt.
    if (code != MXHOST_NOT_FOUND && driver_.timeIsUp()) {
        code = TIMEOUTEXPIRED;
    }
    return false;
}

bool ServerSearch::tryRelays(DomainRelay& relays, const char* domain, bool& tried) {
    if (driver_.timeIsUp()) {
        return false;
    }
    IPaddressList list;
    eventId event = EV_NONE;
    const int n = relays.getAddresses(domain, list, mailscanGlobals::max_addr_to_try, event);
    // Also with -1: the line decides, though its relays are not known now.
    tried = tried || n != 0;
    if (n < 1) {
        driver_.passed(event);
        return false;
    }
    driver_.passed(EV_RELAY_FOUND);
    if (driver_.offerRelays(list, relays)) {
        return true;
    }
    driver_.passed(EV_RELAYS_FAILED);
    return false;
}

int ServerSearch::exchangersOf(EmailAddr& rcpt, IPaddressList& list) {
    const int n = rcpt.GetMXhosts(list, mailscanGlobals::max_addr_to_try, driver_.observer());
    if (rcpt.attempt != nullptr) {
        known_.leftOut += rcpt.attempt->leftOut;
    }
    return n;
}

// Only a domain that does not exist, or that has no address at all, is without hope; a look-up that
// gave nothing this time is tried again later.
bool ServerSearch::offerExchangers(SMTPcode& code, EmailAddr& rcpt) {
    driver_.passed(EV_MX_START);
    IPaddressList list;
    const int n = exchangersOf(rcpt, list);
    if (n == MXlookup::kNullMx) {
        code = TAKES_NO_MAIL;
        return false;
    }
    if (n == -1) {
        code = MXHOST_NOT_FOUND;
        return false;
    }
    return driver_.offer(list, kMailPort);
}

} // namespace Email
