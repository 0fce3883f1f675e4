// The mail exchangers of a domain, through DNS (RFC 5321, 5.1), and their addresses.
#pragma once

#include "email/HostList.h"
#include "email/Resolver.h"

class MXlookup : public HostList {
public:
    // Appends the exchangers' addresses, best first, without this host and what is not better than
    // it; the domain's own addresses when it has no usable exchanger. Returns the count of `out`;
    // 0 when the answer may come later; -1 when the domain does not exist or its answer is
    // unusable. Answers are remembered for a minute, for the exact domain, before any blacklist is
    // applied: the many recipients of one domain cost one question.
    int getAddresses(const char* domain, IPaddressList& out, int max, eventId& event) override;

private:
    int lookUp(const char* domain, IPaddressList& out, int max, eventId& event);

    Resolver resolver_;
};
