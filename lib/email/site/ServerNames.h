// Under which name the route of a domain names each of its servers: what TLS asks a server for and
// verifies. Kept for the whole run, since addresses are remembered without their names.
#pragma once

#include "email/site/IPaddressList.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace Email {

enum class NamedBy : std::uint8_t { NameService, RuleTable };

struct ServerIdentity {
    std::string name; // empty when none is known
    NamedBy by = NamedBy::NameService;
};

// The first name stays: that of the exchanger that is tried first. Case and a trailing dot of the
// domain are ignored.
void rememberServer(std::string_view domain, IPaddress address, const ServerIdentity& server);

// The same for the addresses of the list from place `from` on; brackets around a literal go.
// Nothing is kept when no domain of this run may get TLS.
void rememberServers(std::string_view domain, const IPaddressList& list, int from,
                     std::string_view name, NamedBy by = NamedBy::NameService);

[[nodiscard]] ServerIdentity serverIdentity(std::string_view domain, IPaddress address);

// The name alone.
[[nodiscard]] std::string serverName(std::string_view domain, IPaddress address);

} // namespace Email
