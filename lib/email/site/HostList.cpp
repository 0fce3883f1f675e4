#include "email/site/HostList.h"

#include "email/base/Assert.h"
#include "email/site/mailscanGlobals.h"

#include <arpa/inet.h>
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
    const hostent* answer = ::gethostbyname(name);
    const bool usable = answer != nullptr && answer->h_addrtype == AF_INET &&
                        answer->h_length == static_cast<int>(sizeof(in_addr)) &&
                        (answer->h_name == nullptr ||
                         ::strnlen(answer->h_name, kMaxCanonicalName + 1) <= kMaxCanonicalName);
    return usable ? answer : nullptr;
}

} // namespace

constinit const IPaddress IPaddress::loopback{0x7F000001};
constinit const IPaddress IPaddress::null{0};

constinit std::array<char, 256> HostList::privateHostName{};
constinit std::vector<IPaddress> HostList::m_selfaddr;
BlackList HostList::BlackL;

int IPaddress::format(char* out) const noexcept {
    std::array<unsigned char, sizeof value> byte{};
    std::memcpy(byte.data(), &value, sizeof value);
    char* end = out;
    for (const unsigned char number : byte) {
        end = std::to_chars(end, out + kTextSize, number).ptr;
        *end++ = '.';
    }
    *--end = '\0';
    return static_cast<int>(end - out);
}

std::ostream& operator<<(std::ostream& out, const IPaddress& address) {
    std::array<char, IPaddress::kTextSize> text{};
    address.format(text.data());
    return out << text.data();
}

bool IPaddressList::Add(IPaddress address) noexcept {
    if (Naddr >= kCapacity) {
        return false;
    }
    addresses_[static_cast<std::size_t>(Naddr++)] = address;
    return true;
}

bool IPaddressList::InList(IPaddress address) const noexcept {
    const auto* end = addresses_.data() + Naddr;
    return std::find(addresses_.data(), end, address) != end;
}

int IPaddressList::Add(const IPaddressList& other, int max) noexcept {
    const int others = other.count();
    for (int i = 0; i < others && Naddr < max && IPaddressList::Add(other.addr(i)); ++i) {
    }
    return Naddr;
}

int IPaddressList::AddNot(const IPaddressList& other, int max, BlackList& bl) noexcept {
    const int others = other.count();
    for (int i = 0; i < others && Naddr < max; ++i) {
        const IPaddress address = other.addr(i);
        if (!bl.InList(address, i == 0) && !IPaddressList::Add(address)) {
            break;
        }
    }
    return Naddr;
}

IPaddress IPaddressList::addr(int i) const noexcept {
    return i >= 0 && i < Naddr ? addresses_[static_cast<std::size_t>(i)] : IPaddress::null;
}

BlackList::BlackList() noexcept {
    nextPurge_.SetNow();
}

void BlackList::SetTimeout(std::int32_t seconds) noexcept {
    timeout_ = seconds;
}

bool BlackList::Add(IPaddress address) noexcept {
    if (!IPaddressList::Add(address)) {
        return false;
    }
    DateTime now;
    now.SetNow();
    DateTime& expiry = expiry_[static_cast<std::size_t>(Naddr - 1)];
    expiry = now + timeout_;
    if (Naddr == 1) {
        nextPurge_ = expiry;
    }
    return true;
}

bool BlackList::InList(IPaddress address, bool purge) noexcept {
    if (Naddr == 0) {
        return false; // the first entry added sets the next purge time
    }
    if (purge) {
        DateTime now;
        now.SetNow();
        if (now > nextPurge_) {
            nextPurge_ = now;
            purgeExpired(now);
        }
    }
    return IPaddressList::InList(address);
}

// An expired entry's place is taken by the last valid one: the order of the rest changes.
void BlackList::purgeExpired(const DateTime& now) noexcept {
    const auto valid = [&](int i) { return expiry_[static_cast<std::size_t>(i)] > now; };
    for (int i = 0; i < Naddr; ++i) {
        if (valid(i)) {
            continue;
        }
        while (Naddr > i + 1 && !valid(Naddr - 1)) {
            --Naddr;
        }
        --Naddr;
        addresses_[static_cast<std::size_t>(i)] = addresses_[static_cast<std::size_t>(Naddr)];
        expiry_[static_cast<std::size_t>(i)] = expiry_[static_cast<std::size_t>(Naddr)];
    }
}

HostList::HostList() {
    if (privateHostName[0] == '\0') {
        ::gethostname(privateHostName.data(), privateHostName.size() - 2);
        const hostent* self = ::gethostbyname(privateHostName.data());
        if (self != nullptr && self->h_name != nullptr) {
            std::snprintf(privateHostName.data(), privateHostName.size(), "%s", self->h_name);
        }
    }
    InitialiseLocals();
}

const char* HostList::hostName() noexcept {
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

bool HostList::isLocal(IPaddress address) {
    InitialiseLocals();
    return std::find(m_selfaddr.begin(), m_selfaddr.end(), address) != m_selfaddr.end();
}

bool HostList::onlyLiteralCharacters(const char* name) noexcept {
    return name[std::strspn(name, kLiteralCharacters)] == '\0';
}

bool HostList::isLiteral(const char* name) noexcept {
    return (*name == '[' || isDigit(*name)) && onlyLiteralCharacters(name);
}

int HostList::hostLookup(const char* name, IPaddressList& out, int max, bool skipLocal) {
    if (out.count() >= max) {
        return out.count();
    }
    if (isLiteral(name)) {
        const IPaddress address = literalAddress(name);
        if (!skipLocal || !isLocal(address)) {
            out.Add(address);
        }
        return out.count();
    }
    const hostent* answer = resolve(name);
    if (answer == nullptr) {
        return -1;
    }
    if (answer->h_name == nullptr) {
        assert_failure("hostEnt->h_name", kUnit, 396);
    }
    if (std::strlen(answer->h_name) >= 256) {
        assert_failure("strlen(hostEnt->h_name) < 256", kUnit, 397);
    }
    takeAddresses(*answer, out, std::min(max - out.count(), mailscanGlobals::max_addr_per_host),
                  skipLocal);
    return out.count();
}

void HostList::takeAddresses(const hostent& answer, IPaddressList& out, int limit, bool skipLocal) {
    for (int i = 0; i < limit && answer.h_addr_list[i] != nullptr; ++i) {
        IPaddress address;
        std::memcpy(&address.value, answer.h_addr_list[i], sizeof address.value);
        if (!skipLocal || !isLocal(address)) {
            out.Add(address);
        }
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
