// The mail exchangers of a domain, through DNS (RFC 5321, 5.1), and their addresses.
#pragma once

#include "email/site/HostList.h"
#include "email/site/MxAnswer.h"
#include "email/site/Resolver.h"

#include <cstddef>
#include <optional>
#include <span>
#include <vector>

namespace Email {
struct Exchangers;
} // namespace Email

class MXlookup : public HostList {
public:
    // The observer, if any, is told of every look-up, whatever is remembered.
    explicit MXlookup(Email::ServerObserver* observer = nullptr) noexcept : observer_(observer) {}

    // An answer is used again for this long, in seconds, and this many are held at most; within a
    // pass all are, to its end. Failures are held as well: a run asks a sick name server once per
    // domain and not once per recipient.
    static constexpr int kCacheSeconds = 60;
    static constexpr std::size_t kCacheEntries = 1024;

    // One delivery pass, while this lives: what was known at its beginning, or is learnt in it,
    // stays known to its end. One at a time.
    class Pass {
    public:
        Pass();
        ~Pass();
        Pass(const Pass&) = delete;
        Pass& operator=(const Pass&) = delete;
    };

    // A server waits for the next command while this lives: mayAnswer() says no to what would have
    // to be asked for.
    class ServerWaits {
    public:
        ServerWaits() noexcept { serverWaits_ = true; }
        ~ServerWaits() { serverWaits_ = false; }
        ServerWaits(const ServerWaits&) = delete;
        ServerWaits& operator=(const ServerWaits&) = delete;
    };

    // True when getAddresses() for an empty list of full capacity may be called now.
    [[nodiscard]] static bool mayAnswer(const char* domain);

    // Appends the exchangers' addresses, best first, without this host and what is not better than
    // it; the domain's own addresses when it has no usable exchanger. Returns the count of `out`;
    // 0 when the answer may come later; -1 when the domain does not exist or its answer is
    // unusable. Answers are remembered for the exact domain, before any blacklist is applied: the
    // many recipients of one domain cost one question. An address literal asks nobody.
    //
    // With "dns-rules rfc" kNullMx for a domain that takes no mail, 0 for whatever may pass, and
    // exchangers of any number, equal ones in an order of chance; an exchanger with an address of
    // this host, or one that cannot be another host's, is this host.
    //
    // `event`: EV_MX_NO_DOMAIN with -1, EV_MX_TEMPFAIL or EV_MX_NO_ADDRESS with 0;
    // EV_MX_NO_RECORD or EV_MX_NONE_LEFT when the domain's own addresses are taken; else EV_NONE.
    int getAddresses(const char* domain, IPaddressList& out, int max, eventId& event) override;

    // Forgets every remembered answer.
    static void clearCache() noexcept;

    static constexpr int kNullMx = -2;

    // True for an address that DNS gives and that is, or might as well be, this host's.
    [[nodiscard]] static bool isThisHost(IPaddress address);

private:
    // What follows from the answer to the MX question: `result` of Resolver::Query() and, for
    // QUERY_OK, the message.
    int useAnswer(int result, const unsigned char* msg, int len, const char* domain,
                  IPaddressList& out, int max, eventId& event);
    int lookUpByRfc(const char* domain, IPaddressList& out, int max, eventId& event);
    int useByRfc(std::span<const unsigned char> message, const char* domain, IPaddressList& out,
                 int max, eventId& event);
    std::vector<Email::Exchanger> order(std::vector<Email::Exchanger>& exchangers) const;
    void tellEquals(std::span<Email::Candidate> met, bool better) const;
    bool takeEquals(std::span<const Email::Exchanger> exchangers, std::size_t& at,
                    const char* domain, IPaddressList& out, int max);
    int takeOwnAddress(const char* domain, IPaddressList& out, int max, eventId& event);
    int lookUp(const char* domain, IPaddressList& out, int max, eventId& event);
    // hostLookup(), which also notes under which name the domain's route has the addresses.
    int takeHost(const char* name, const char* domain, IPaddressList& out, int max,
                 std::optional<int> preference = {});
    // The domain's own addresses, for the reason given.
    int takeItself(const char* domain, IPaddressList& out, int max, eventId why);
    int takeExchangers(const Email::Exchangers& mx, const char* domain, IPaddressList& out, int max,
                       eventId& event);
    std::vector<Email::Exchanger> cutAtThisHost(Email::Exchangers& mx) const;
    void tell(std::span<const Email::Exchanger> exchangers, Email::Candidate::Fate fate) const;
    int useExchangers(const unsigned char* msg, int len, const char* domain, IPaddressList& out,
                      int max, eventId& event);

    static inline bool serverWaits_ = false;

    Resolver resolver_;
    Email::ServerObserver* observer_;
};
