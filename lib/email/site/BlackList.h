// The servers that failed in this run and are left alone for a while.
#pragma once

#include "email/base/Utils.h"
#include "email/site/IPaddressList.h"

#include <array>
#include <cstdint>

inline constexpr std::int32_t DEFAULT_BLACKLIST_TIMEOUT = 180; // seconds

// Servers that refused, or did not greet, within the last `timeout` seconds of this run.
class BlackList : public IPaddressList {
public:
    BlackList() noexcept;

    void SetTimeout(std::int32_t seconds) noexcept;
    [[nodiscard]] std::int32_t timeout() const noexcept { return timeout_; }

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
