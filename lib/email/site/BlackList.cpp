#include "email/site/BlackList.h"

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
        // The clock counts seconds: one purge in each is enough, however many servers are asked
        // about.
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
