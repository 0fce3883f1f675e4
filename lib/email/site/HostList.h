// The base of the two server finders (DomainRelay, MXlookup), with what the gateway knows of its
// own host. A name that does not resolve is a result (-1), not an error to be logged here.
#pragma once

#include "email/base/eventId.h"
#include "email/site/BlackList.h"
#include "email/site/ServerObserver.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <vector>

struct hostent;
struct sockaddr;

class HostList {
public:
    // The first construction fills this host's name (unless nameWhenAsked() came before) and its
    // local addresses.
    HostList();
    virtual ~HostList() = default;
    HostList(const HostList&) = delete;
    HostList& operator=(const HostList&) = delete;

    // Appends servers for `name` to `out`, up to `max` entries in it, and returns the count of
    // `out`; below 1 when there are none, with `event` telling why.
    virtual int getAddresses(const char* name, IPaddressList& out, int max, eventId& event) = 0;

    // As getAddresses(), without the servers on the blacklist; the event is not handed out.
    int getGoodAddr(const char* name, IPaddressList& out, int max);

    // This host's canonical name, or the name that gethostname(2) gives when it has none. Empty
    // until the first HostList is constructed, unless it is looked up when asked for.
    [[nodiscard]] static const char* hostName() noexcept;

    // From now on the name is looked up when it is asked for, and not by the first construction:
    // for programs that mostly need none, and shall not wait for a name service. Call it before any
    // HostList is constructed.
    static void nameWhenAsked() noexcept { nameWhenAsked_ = true; }

    // Reads the local addresses from /etc/hosts; does nothing once some are known.
    static void InitialiseLocals();

    // True for every address in the first column of /etc/hosts, whoever's it is.
    [[nodiscard]] static bool isLocal(IPaddress address);

    // The IPv4 addresses of this host's network interfaces; none when the system does not tell.
    static std::vector<IPaddress> interfaceAddresses();

    // The addresses in the first column of a text in the form of hosts(5). Lines that do not begin
    // with an address (inet_aton), so also those with leading blanks, give nothing.
    static std::vector<IPaddress> readLocals(std::istream& hosts);

    // Appends the addresses of `name` (a literal, or a name for the system's resolver) to `out`,
    // at most max_addr_per_host of them and at most `max` entries in all, leaving out local ones
    // when `skipLocal`. Returns the count of `out`, or -1 when the name does not resolve. A
    // literal that is no address ("[999.1.1.1]") gives 255.255.255.255. `asked` is told of each
    // address.
    static int hostLookup(const char* name, IPaddressList& out, int max, bool skipLocal,
                          const Email::Asked& asked = {});

    // Appends the first `limit` IPv4 addresses of an answer. Local ones that `skipLocal` leaves out
    // use up the limit as well.
    static void takeAddresses(const hostent& answer, IPaddressList& out, int limit, bool skipLocal,
                              const Email::Asked& asked = {});

    // True when the name begins with "[" or a digit and holds only digits, dots and brackets.
    [[nodiscard]] static bool isLiteral(const char* name) noexcept;

    // True when the name holds only digits, dots and brackets; also when it is empty.
    [[nodiscard]] static bool onlyLiteralCharacters(const char* name) noexcept;

    // Shared by the whole run: a server that failed for one message is skipped for the next.
    static BlackList BlackL;

protected:
    // Ready before any constructor of the program runs: the relay tables are built that early.
    static std::array<char, 256> privateHostName;
    static std::vector<IPaddress> m_selfaddr;

private:
    static void findName() noexcept;

    static bool nameWhenAsked_;
};

// "fam:<family> <address>:<port>"
std::ostream& operator<<(std::ostream& out, const sockaddr& address);
