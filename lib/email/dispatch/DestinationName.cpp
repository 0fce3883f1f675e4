#include "email/dispatch/DestinationName.h"

#include "email/base/LowerCase.h"
#include "email/site/DomainRelay.h"
#include "email/spool/EmailAddr.h"
#include "email/spool/Recipients.h"

#include <strings.h>

#include <array>

namespace Dispatch {

namespace {

using Domain = std::array<char, EmailAddr::kDomainSize>;

std::string relayFor(const char* domain) {
    IPaddressList relays;
    eventId event = EV_NONE;
    if (DomainRelay::stdRelays.getAddresses(domain, relays, IPaddressList::kCapacity, event) < 1) {
        return {};
    }
    std::array<char, IPaddress::kTextSize> text{};
    relays.addr(0).format(text.data());
    return std::string("relay ") + text.data();
}

} // namespace

std::string destinationOf(const EmailAddr& recipient) {
    Domain domain{};
    if (!recipient.GetDomain(domain.data())) {
        return {};
    }
    if (recipient.CheckForDirectSend()) {
        return "local";
    }
    if (std::string relay = relayFor(domain.data()); !relay.empty()) {
        return relay;
    }
    return Email::inLowerCase(domain.data());
}

std::string returnDestination(const char* sender) {
    return std::string(kReturnPrefix) + destinationOf(EmailAddr(sender, nullptr, IDS_NO_REASON));
}

bool isLocal(std::string_view destination) noexcept {
    return destination.empty() || destination.starts_with(kReturnPrefix);
}

bool severalDestinations(const Recipients& recipients) {
    const EmailAddr* const first = recipients.first();
    Domain domain{};
    if (first == nullptr || !first->GetDomain(domain.data())) {
        return first != nullptr;
    }
    const std::string destination = destinationOf(*first);
    for (const EmailAddr* other = first->next.get(); other != nullptr; other = other->next.get()) {
        Domain its{};
        // Most lists have one domain: its relays are looked for once.
        const bool same =
            other->GetDomain(its.data()) && ::strcasecmp(its.data(), domain.data()) == 0;
        if (!same && destinationOf(*other) != destination) {
            return true;
        }
    }
    return false;
}

} // namespace Dispatch
