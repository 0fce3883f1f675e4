// One recipient (or sender): its normalised address, the result of its latest attempt and the
// servers found for its domain.
#pragma once

#include "email/base/SMTPcode.h"
#include "email/site/IPaddressList.h"
#include "email/telling/Attempt.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

namespace Email {
class ServerObserver;
} // namespace Email

class EmailAddr {
public:
    static constexpr std::size_t kMaxText = 2048;   // characters of an address, brackets included
    static constexpr std::size_t kTextSize = 2049;  // buffer for an address
    static constexpr std::size_t kDomainSize = 256; // buffer for a domain

    // Normalises the text as setAddr() does; nothing is validated.
    EmailAddr(const char* text, std::unique_ptr<EmailAddr> following, SMTPcode code);
    ~EmailAddr();
    EmailAddr(const EmailAddr&) = delete;
    EmailAddr& operator=(const EmailAddr&) = delete;

    // Copies a chain in order, each record with its address and code. Null for null.
    static std::unique_ptr<EmailAddr> copy(const EmailAddr* first);

    // Writes the address of `text` in angle brackets to `dst` (kTextSize bytes): what stands behind
    // its last "<" up to the next ">". An address without any dot gets the default domain.
    static void setAddr(char* dst, const char* text);

    // Checks the address grammar (RFC 5321, 4.1.2, with the gateway's limits). Returns the accepted
    // address within `text` (a source route is cut off by writing into it), or null. The delivery
    // path never asks: queued addresses are taken as they stand.
    static char* addrOkay(char* text, bool allowNull);

    [[nodiscard]] const char* text() const noexcept { return address_.c_str(); }
    [[nodiscard]] std::size_t size() const noexcept { return address_.size(); }

    // The text after the last "@", without closing brackets, into `dst` (kDomainSize bytes). False
    // without "@" or when it is longer than 255 characters.
    bool GetDomain(char* dst) const noexcept;

    // True when mail for this address goes straight to the configured internal server.
    [[nodiscard]] bool CheckForDirectSend() const noexcept;

    // True when the recipient may be delivered through the server at `addr`. Looks servers up at
    // most once per record. While a server waits (MXlookup::ServerWaits) nobody is asked: false
    // then, and the record's one look-up is still to come.
    bool suitableHost(IPaddress addr);

    // Looks up what suitableHost() will want to know, so that it need not ask while a server waits;
    // the record stays as it is. Returns the time that went by when nothing was found, else 0.
    std::chrono::steady_clock::duration lookAhead() const;

    // Appends the domain's mail exchangers to `out` and returns its count; 0 or less, with `out`
    // untouched, when the (one) lookup yields none. The observer is told of that lookup.
    int GetMXhosts(IPaddressList& out, int max, Email::ServerObserver* observer = nullptr);

private:
    // The mail exchangers found, best first; none before the lookup or after a failed one.
    [[nodiscard]] std::span<const IPaddress> servers() const noexcept;
    [[nodiscard]] bool serves(IPaddress addr) const noexcept;
    bool throughRelaysOrMX(IPaddress addr);
    int lookUpMX(const char* domain, Email::ServerObserver* observer = nullptr);

    std::string address_;
    std::unique_ptr<IPaddress[]> MXhosts_;
    std::uint8_t MXcount_ = 0;
    bool doneMX_ = false;

public:
    SMTPcode reason;
    // Not asked for in this attempt: it stays on the list with its code, whatever that is.
    bool leftOut = false;
    // What the latest attempt came to, once it has ended or servers were left out of it. A copy of
    // the record has none. Recipients that shared a conversation share it.
    std::shared_ptr<const Email::Attempt> attempt{};
    std::unique_ptr<EmailAddr> next;
};

static_assert(IPaddressList::kCapacity <= UINT8_MAX);
