// Where mail for a recipient is meant to go, before any server is looked for: the first decisions
// of the SMTP client, which retryq tells an administrator without sending anything.
#pragma once

#include "email/spool/EmailAddr.h"

#include <array>

namespace Email {

// The port of mail exchangers and relays (RFC 5321, 4.5.4.2).
inline constexpr int kMailPort = 25;

struct Destination {
    enum class Kind {
        NoDomain, // none can be taken from the address
        ThisHost, // the mail would come back through the local proxy's own port
        Direct,   // the gateway's own server first, at its port
        Literal,  // the domain is an address
        Routed,   // relays, else exchangers, else fallback relays
    };

    Kind kind = Kind::NoDomain;
    bool direct = false;                               // what "direct-send-domains" decides
    int port = kMailPort;                              // of the first servers
    std::array<char, EmailAddr::kDomainSize> domain{}; // the recipient's

    // The name that servers are looked for: the recipient's domain, or for a direct send this host.
    [[nodiscard]] const char* asked() const noexcept;

    // Decides from the address and the settings; asks nobody.
    [[nodiscard]] static Destination of(const EmailAddr& recipient) noexcept;
};

// True when either name begins with the other; case matters. Mail that would come back through the
// local proxy is refused, also on the name alone.
[[nodiscard]] bool namesThisHost(const char* domain) noexcept;

} // namespace Email
