#include "email/site/HostList.h"

#include "email/base/Assert.h"
#include "email/site/LookUpLimit.h"
#include "email/site/mailscanGlobals.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netdb.h>
#include <netinet/in.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <ostream>
#include <string>
#include <string_view>

namespace {

using Fate = Email::Candidate::Fate;

constexpr const char* kUnit = "lib/email/HostList";
constexpr const char* kHostsFile = "/etc/hosts";
constexpr const char* kLiteralCharacters = "[0123456789.]";
constexpr std::size_t kMaxLiteral = 15;
constexpr std::size_t kMaxCanonicalName = 255;

bool isDigit(char c) noexcept {
    return c >= '0' && c <= '9';
}

// The address that a literal stands for. One that inet_addr() refuses stays 255.255.255.255: no
// server answers there, and the mail is tried again later instead of being returned.
IPaddress literalAddress(const char* name) noexcept {
    const char* from = name + (*name == '[' ? 1 : 0);
    std::array<char, kMaxLiteral + 1> digits{};
    for (std::size_t n = 0; n < kMaxLiteral && (isDigit(from[n]) || from[n] == '.'); ++n) {
        digits[n] = from[n];
    }
    return IPaddress(::inet_addr(digits.data()));
}

// The system's answer, null when it is none that the gateway can use. What a name server may send
// must end here, before the checks that end the run.
const hostent* resolve(const char* name) noexcept {
    const hostent* answer = Email::hostByName(name);
    const bool usable = answer != nullptr && answer->h_addrtype == AF_INET &&
                        answer->h_length == static_cast<int>(sizeof(in_addr)) &&
                        (answer->h_name == nullptr ||
                         ::strnlen(answer->h_name, kMaxCanonicalName + 1) <= kMaxCanonicalName);
    return usable ? answer : nullptr;
}

void take(IPaddress address, IPaddressList& out, bool skipLocal, const Email::Asked& asked) {
    const bool leftOut = skipLocal && HostList::isLocal(address);
    asked.tell(leftOut ? Fate::Local : Fate::Taken, address);
    if (!leftOut) {
        out.Add(address);
    }
}

} // namespace

constinit std::array<char, 256> HostList::privateHostName{};
constinit std::vector<IPaddress> HostList::m_selfaddr;
constinit bool HostList::nameWhenAsked_ = false;
BlackList HostList::BlackL;

HostList::HostList() {
    if (!nameWhenAsked_) {
        findName();
    }
    InitialiseLocals();
}

void HostList::findName() noexcept {
    if (privateHostName[0] != '\0') {
        return;
    }
    // A name that is cut need not be terminated by it; the last bytes stay zero.
    ::gethostname(privateHostName.data(), privateHostName.size() - 2);
    const hostent* self = Email::hostByName(privateHostName.data());
    if (self != nullptr && self->h_name != nullptr) {
        std::snprintf(privateHostName.data(), privateHostName.size(), "%s", self->h_name);
    }
}

const char* HostList::hostName() noexcept {
    if (nameWhenAsked_) {
        findName();
    }
    return privateHostName.data();
}

void HostList::InitialiseLocals() {
    if (m_selfaddr.empty()) {
        std::ifstream hosts(kHostsFile);
        m_selfaddr = readLocals(hosts);
    }
}

std::vector<IPaddress> HostList::readLocals(std::istream& hosts) {
    std::vector<IPaddress> found;
    std::string line;
    while (std::getline(hosts, line)) {
        line.resize(std::min(line.find_first_of("\t "), line.size()));
        in_addr address{};
        if (::inet_aton(line.c_str(), &address) != 0) {
            found.emplace_back(address.s_addr);
        }
    }
    return found;
}

std::vector<IPaddress> HostList::interfaceAddresses() {
    std::vector<IPaddress> found;
    ifaddrs* first = nullptr;
    if (::getifaddrs(&first) != 0) {
        return found;
    }
    for (const ifaddrs* at = first; at != nullptr; at = at->ifa_next) {
        if (at->ifa_addr != nullptr && at->ifa_addr->sa_family == AF_INET) {
            sockaddr_in inet{};
            // A copy: the address need not be aligned for what it holds.
            std::memcpy(&inet, at->ifa_addr, sizeof inet);
            found.emplace_back(inet.sin_addr.s_addr);
        }
    }
    ::freeifaddrs(first);
    return found;
}

bool HostList::isLocal(IPaddress address) {
    // Again while none is known: the file may have been missing.
    InitialiseLocals();
    return std::find(m_selfaddr.begin(), m_selfaddr.end(), address) != m_selfaddr.end();
}

bool HostList::onlyLiteralCharacters(const char* name) noexcept {
    return name[std::strspn(name, kLiteralCharacters)] == '\0';
}

bool HostList::isLiteral(const char* name) noexcept {
    return (*name == '[' || isDigit(*name)) && onlyLiteralCharacters(name);
}

int HostList::hostLookup(const char* name, IPaddressList& out, int max, bool skipLocal,
                         const Email::Asked& asked) {
    if (out.count() >= max) {
        asked.tell(Fate::Enough);
        return out.count();
    }
    // An address needs no name service.
    if (isLiteral(name)) {
        take(literalAddress(name), out, skipLocal, asked);
        return out.count();
    }
    const hostent* answer = resolve(name);
    if (answer == nullptr) {
        asked.tell(Fate::Unresolved);
        return -1;
    }
    if (answer->h_name == nullptr) {
        assert_failure("hostEnt->h_name", kUnit, contractLine(396));
    }
    if (std::strlen(answer->h_name) >= 256) {
        assert_failure("strlen(hostEnt->h_name) < 256", kUnit, contractLine(397));
    }
    takeAddresses(*answer, out, std::min(max - out.count(), mailscanGlobals::max_addr_per_host),
                  skipLocal, asked);
    return out.count();
}

void HostList::takeAddresses(const hostent& answer, IPaddressList& out, int limit, bool skipLocal,
                             const Email::Asked& asked) {
    for (int i = 0; i < limit && answer.h_addr_list[i] != nullptr; ++i) {
        IPaddress address;
        std::memcpy(&address.value, answer.h_addr_list[i], sizeof address.value);
        take(address, out, skipLocal, asked);
    }
}

int HostList::getGoodAddr(const char* name, IPaddressList& out, int max) {
    IPaddressList found;
    eventId event = EV_NONE;
    const int n = getAddresses(name, found, IPaddressList::kCapacity, event);
    return n < 1 ? n : out.AddNot(found, max, BlackL);
}

std::ostream& operator<<(std::ostream& out, const sockaddr& address) {
    sockaddr_in inet{};
    std::memcpy(&inet, &address, sizeof inet);
    return out << "fam:" << inet.sin_family << ' ' << IPaddress(inet.sin_addr.s_addr) << ':'
               << ntohs(inet.sin_port);
}
