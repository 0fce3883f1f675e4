// Host addresses, bounded address lists, the blacklist of servers that failed in this run, and
// HostList, the base of the two server finders (DomainRelay, MXlookup) together with what the
// gateway knows of its own host.
//
// Lists are IPv4 only, never grow beyond their 100 entries and never reorder what was added. A name
// that does not resolve is a result (-1), not an error to be logged here.
#pragma once

#include "email/base/Utils.h"
#include "email/base/eventId.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <vector>

struct hostent;
struct sockaddr;

// One IPv4 address, the four bytes as they stand on the wire.
struct IPaddress {
    std::uint32_t value = 0;

    constexpr IPaddress() noexcept = default;
    // Stores the number as it is, without any byte-order conversion.
    constexpr explicit IPaddress(std::uint32_t raw) noexcept : value(raw) {}

    // Room that format() needs.
    static constexpr std::size_t kTextSize = 16;
    // Writes "a.b.c.d", first the byte lowest in memory; returns the number of characters.
    int format(char* out) const noexcept;

    // The server of direct sends. Its bytes stand as this machine stores 0x7F000001: on a
    // little-endian one it is, and is connected to, as 1.0.0.127. Sites route that address.
    static const IPaddress loopback;
    static const IPaddress null;
};

inline bool operator==(const IPaddress& a, const IPaddress& b) noexcept {
    return a.value == b.value;
}
std::ostream& operator<<(std::ostream& out, const IPaddress& address);

class BlackList;

// Servers in the order in which they are tried; at most 100.
class IPaddressList {
public:
    static constexpr int kCapacity = 100;

    // Appends; false when the list is full.
    virtual bool Add(IPaddress address) noexcept;
    [[nodiscard]] virtual bool InList(IPaddress address) const noexcept;

    // Appends other's entries in order while this list holds fewer than `max`. Returns the count.
    int Add(const IPaddressList& other, int max) noexcept;

    // The same, leaving out what is on `bl`. Only the first entry examined is asked for with
    // purging, so that one call sees one state of the blacklist. Returns the count.
    int AddNot(const IPaddressList& other, int max, BlackList& bl) noexcept;

    // Entry `i`, or 0.0.0.0 outside 0 ... count - 1.
    [[nodiscard]] IPaddress addr(int i) const noexcept;
    [[nodiscard]] int count() const noexcept { return Naddr; }

protected:
    std::array<IPaddress, kCapacity> addresses_{};
    std::int32_t Naddr = 0;
};

inline constexpr std::int32_t DEFAULT_BLACKLIST_TIMEOUT = 180; // seconds

// Servers that refused, or did not greet, within the last `timeout` seconds of this run.
class BlackList : public IPaddressList {
public:
    BlackList() noexcept;

    void SetTimeout(std::int32_t seconds) noexcept;

    // Records the address until now + timeout. False (and nothing recorded) when full. An address
    // already held is held twice.
    bool Add(IPaddress address) noexcept override;

    // True when the address is held. With `purge`, expired entries are dropped first, if the next
    // purge time has passed; an expired entry that was not purged yet still counts.
    [[nodiscard]] virtual bool InList(IPaddress address, bool purge) noexcept;
    using IPaddressList::Add;
    using IPaddressList::InList;

private:
    void purgeExpired(const DateTime& now) noexcept;

    DateTime nextPurge_;
    std::array<DateTime, kCapacity> expiry_{};
    std::int32_t timeout_ = DEFAULT_BLACKLIST_TIMEOUT;
};

class HostList {
public:
    // The first construction fills this host's name and its local addresses.
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
    // until the first HostList is constructed.
    [[nodiscard]] static const char* hostName() noexcept;

    // Reads the local addresses from /etc/hosts; does nothing once some are known.
    static void InitialiseLocals();

    // True for every address in the first column of /etc/hosts, whoever's it is.
    [[nodiscard]] static bool isLocal(IPaddress address);

    // The addresses in the first column of a text in the form of hosts(5). Lines that do not begin
    // with an address (inet_aton), so also those with leading blanks, give nothing.
    static std::vector<IPaddress> readLocals(std::istream& hosts);

    // Appends the addresses of `name` (a literal, or a name for the system's resolver) to `out`,
    // at most max_addr_per_host of them and at most `max` entries in all, leaving out local ones
    // when `skipLocal`. Returns the count of `out`, or -1 when the name does not resolve. A
    // literal that is no address ("[999.1.1.1]") gives 255.255.255.255.
    static int hostLookup(const char* name, IPaddressList& out, int max, bool skipLocal);

    // Appends the first `limit` IPv4 addresses of an answer. Local ones that `skipLocal` leaves out
    // use up the limit as well.
    static void takeAddresses(const hostent& answer, IPaddressList& out, int limit, bool skipLocal);

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
};

// "fam:<family> <address>:<port>"
std::ostream& operator<<(std::ostream& out, const sockaddr& address);
