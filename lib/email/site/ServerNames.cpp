#include "email/site/ServerNames.h"

#include "email/base/LowerCase.h"
#include "email/site/TlsPolicy.h"

#include <map>
#include <utility>

namespace Email {

namespace {

using Key = std::pair<std::string, std::uint32_t>;

std::map<Key, ServerIdentity>& names() {
    static std::map<Key, ServerIdentity> all;
    return all;
}

Key keyOf(std::string_view domain, IPaddress address) {
    if (domain.ends_with('.')) {
        domain.remove_suffix(1);
    }
    return {inLowerCase(std::string(domain)), address.value};
}

} // namespace

void rememberServer(std::string_view domain, IPaddress address, const ServerIdentity& server) {
    names().try_emplace(keyOf(domain, address), server);
}

void rememberServers(std::string_view domain, const IPaddressList& list, int from,
                     std::string_view name, NamedBy by) {
    if (!tlsPolicy().wanted()) {
        return;
    }
    name.remove_prefix(name.starts_with('[') ? 1 : 0);
    name.remove_suffix(name.ends_with(']') ? 1 : 0);
    for (int i = from; i < list.count(); ++i) {
        rememberServer(domain, list.addr(i), {std::string(name), by});
    }
}

ServerIdentity serverIdentity(std::string_view domain, IPaddress address) {
    const auto found = names().find(keyOf(domain, address));
    return found == names().end() ? ServerIdentity{} : found->second;
}

std::string serverName(std::string_view domain, IPaddress address) {
    return serverIdentity(domain, address).name;
}

} // namespace Email
