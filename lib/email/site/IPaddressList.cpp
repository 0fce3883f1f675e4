#include "email/site/IPaddressList.h"

#include "email/site/BlackList.h"

#include <algorithm>

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
    const int more = std::clamp(std::min(max, kCapacity) - Naddr, 0, other.count());
    std::copy_n(other.addresses_.begin(), more, addresses_.begin() + Naddr);
    return Naddr += more;
}

int IPaddressList::AddNot(const IPaddressList& other, int max, BlackList& bl) noexcept {
    const int others = other.count();
    for (int i = 0; i < others && Naddr < max; ++i) {
        const IPaddress address = other.addr(i);
        // One purge for the whole list.
        if (!bl.InList(address, i == 0) && !IPaddressList::Add(address)) {
            break;
        }
    }
    return Naddr;
}

IPaddress IPaddressList::addr(int i) const noexcept {
    return i >= 0 && i < Naddr ? addresses_[static_cast<std::size_t>(i)] : IPaddress::null;
}
