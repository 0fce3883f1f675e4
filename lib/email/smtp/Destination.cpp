#include "email/smtp/Destination.h"

#include "email/site/HostList.h"
#include "email/site/mailscanGlobals.h"

#include <string_view>

namespace Email {

bool namesThisHost(const char* domain) noexcept {
    const std::string_view asked = domain;
    const std::string_view own = HostList::hostName();
    return asked.starts_with(own) || own.starts_with(asked);
}

const char* Destination::asked() const noexcept {
    return direct ? HostList::hostName() : domain.data();
}

Destination Destination::of(const EmailAddr& recipient) noexcept {
    Destination to;
    to.direct = recipient.CheckForDirectSend();
    to.port = to.direct ? mailscanGlobals::mailSendPort : kMailPort;
    if (!recipient.GetDomain(to.domain.data())) {
        return to;
    }
    // A direct send asks for this host's own name, so that for it the ports alone decide.
    if (namesThisHost(to.asked()) && to.port == mailscanGlobals::mailReadPort) {
        to.kind = Kind::ThisHost;
    } else if (to.direct) {
        to.kind = Kind::Direct;
    } else {
        to.kind = HostList::onlyLiteralCharacters(to.asked()) ? Kind::Literal : Kind::Routed;
    }
    return to;
}

} // namespace Email
