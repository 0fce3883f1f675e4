// In which order servers are looked for, for one recipient: the gateway's own for a direct send,
// the address of a literal, else the relays of the domain, its mail exchangers, the fallback
// relays. The search decides when to go on, and with which code it ends; who drives it connects.
// The SMTP client drives it to deliver, retryq to tell an administrator, without connecting.
#pragma once

#include "email/base/SMTPcode.h"
#include "email/base/eventId.h"
#include "email/site/DomainRelay.h"
#include "email/site/IPaddressList.h"
#include "email/smtp/Destination.h"
#include "email/spool/EmailAddr.h"
#include "email/telling/Attempt.h"

namespace Email {

class ServerSearch {
public:
    class Driver {
    public:
        virtual ~Driver() = default;

        // True when no further step may be begun.
        virtual bool timeIsUp() = 0;
        // The search has come this far.
        virtual void passed(eventId event) = 0;
        // The recipient has a domain: where its mail is meant to go. Told before a server is looked
        // for, also when none will be.
        virtual void headsFor(const Destination& to) = 0;
        // At least one server, to be tried in this order. True ends the search: one is taken.
        virtual bool offer(const IPaddressList& servers, int port) = 0;
        // The same for relays of a table.
        virtual bool offerRelays(const IPaddressList& servers, const DomainRelay& /*relays*/) {
            return offer(servers, kMailPort);
        }
        // True when what was in the way may pass, so that the mail is tried again whatever the name
        // service said of its domain.
        virtual bool mayPass() { return false; }
        // Told of the exchangers that are met; null for nobody.
        virtual ServerObserver* observer() noexcept { return nullptr; }
    };

    // `known` gets what the look-ups say. All arguments must live as long as the search.
    ServerSearch(Driver& driver, Attempt& known, DomainRelay& relays = DomainRelay::stdRelays,
                 DomainRelay& fallback = DomainRelay::fallbackRelays) noexcept
        : driver_(driver), known_(known), relays_(relays), fallback_(fallback) {}

    // True when a server was taken. Else the code tells why none was: COMMS_FAILED,
    // MXHOST_NOT_FOUND, BADHOSTNAME, SELFSEND, TIMEOUTEXPIRED or TAKES_NO_MAIL.
    bool run(SMTPcode& code, EmailAddr& rcpt);

    // The relays for the domain, on port 25; `tried` is set when there are any.
    bool tryRelays(DomainRelay& relays, const char* domain, bool& tried);

private:
    bool begin(SMTPcode& code, const Destination& to);
    int exchangersOf(EmailAddr& rcpt, IPaddressList& list);
    bool offerOwnServer(int port);
    bool offerLiteral(EmailAddr& rcpt);
    bool offerExchangers(SMTPcode& code, EmailAddr& rcpt);
    bool offerRouted(SMTPcode& code, const Destination& to, EmailAddr& rcpt);

    Driver& driver_;
    Attempt& known_;
    DomainRelay& relays_;
    DomainRelay& fallback_;
};

} // namespace Email
