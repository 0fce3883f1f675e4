// Who is told of each server that the search for a domain's servers meets, and why some are left
// out. The SMTP client has nobody told; retryq shows it to the administrator.
#pragma once

#include "email/base/IPaddress.h"
#include "email/base/eventId.h"

#include <cstdint>
#include <optional>
#include <string_view>

struct cfgrec;

namespace Email {

// A name of the rule table or of DNS, with one of its addresses.
struct Candidate {
    enum class Fate {
        Taken,
        Enough,     // not looked up: enough addresses were found before
        Unresolved, // the name has no address, or none now
        Local,      // an address of this host (/etc/hosts)
        ThisHost,   // an address of this host, or one that cannot be another host's
        NotBetter,  // an exchanger that is this host, or not better than it
    };
    std::string_view name;
    std::optional<int> preference{}; // of a mail exchanger
    std::optional<IPaddress> address{};
    Fate fate = Fate::Taken;
};

class ServerObserver {
public:
    virtual ~ServerObserver() = default;

    // The text is the caller's.
    virtual void met(const Candidate& candidate) = 0;

    // A line is to be read into a relay table. False: it is passed over, and nothing looked up.
    virtual bool concerns(const cfgrec& /*line*/) { return true; }
    // A relay table was asked; the line of the rule table that decides, 0 for none.
    virtual void relaysDecided(std::int32_t /*line*/) {}

    // A domain has no exchanger that could be used: its own address is looked up. The reason is
    // EV_MX_NONE_LEFT or another.
    virtual void ownAddress(eventId /*why*/) {}
    // A look-up of exchangers is done, with this result and event of MXlookup::getAddresses().
    virtual void lookedUp(int /*result*/, eventId /*event*/) {}
};

// A name that is looked up, for the observer, if there is one.
struct Asked {
    ServerObserver* observer = nullptr;
    std::string_view name{};
    std::optional<int> preference{};

    void tell(Candidate::Fate fate, std::optional<IPaddress> address = {}) const {
        if (observer != nullptr) {
            observer->met({name, preference, address, fate});
        }
    }
};

} // namespace Email
