// A bounded list of server addresses.
//
// IPv4 only; it never grows beyond its 100 entries and never reorders what was added.
#pragma once

#include "email/base/IPaddress.h"

#include <array>
#include <cstdint>

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

public:
    std::int32_t Naddr = 0; // entries held; read by the gateway's other programs
};
