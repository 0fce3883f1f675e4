#include "email/spool/EmailAddr.h"

#include "email/site/DomainRelay.h"
#include "email/site/MXlookup.h"
#include "email/site/mailscanGlobals.h"
#include "email/spool/addressGrammar.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <string_view>
#include <strings.h>
#include <utility>

namespace {

constexpr std::size_t kMaxInside = EmailAddr::kMaxText - 2; // between the brackets
constexpr int kAnyCount = IPaddressList::kCapacity;

std::string normalised(std::string_view text) {
    // npos + 1 is 0: without a bracket all of it counts.
    text.remove_prefix(text.rfind('<') + 1);
    text = text.substr(0, text.find('>'));
    const std::string_view address = text.substr(0, kMaxInside);
    std::string_view domain = mailscanGlobals::defaultDomain;
    if (address.empty() || text.find('.') != std::string_view::npos ||
        address.size() + domain.size() + 1 > kMaxInside) {
        domain = {};
    }
    // A dot, not "@": the default domain completes a short domain name. A bare local name gets it
    // the same way, and the gateway's other programs expect what comes of it.
    const std::size_t dot = domain.empty() ? 0 : 1;
    std::string bracketed(address.size() + dot + domain.size() + 2, '.');
    bracketed.front() = '<';
    address.copy(&bracketed[1], address.size());
    domain.copy(&bracketed[1 + address.size() + dot], domain.size());
    bracketed.back() = '>';
    return bracketed;
}

const char* lookUpFailure(eventId event) noexcept {
    switch (event) {
    case EV_MX_NO_DOMAIN:
        return "no-domain";
    case EV_MX_TEMPFAIL:
        return "lookup-failed";
    default:
        return "no-address";
    }
}

// Every server that was found is on the blacklist, or none was found.
Email::Attempt nobodyToTry(const IPaddressList& found, eventId event) {
    Email::Attempt attempt;
    for (int i = 0; i < found.count(); ++i) {
        attempt.passOver(found.addr(i));
    }
    attempt.noneFound(lookUpFailure(event));
    return attempt;
}

} // namespace

EmailAddr::EmailAddr(const char* text, std::unique_ptr<EmailAddr> following, SMTPcode code)
    : address_(normalised(text)), reason(code), next(std::move(following)) {}

// Not by each record deleting the next one: a list may hold more records than the stack can take.
EmailAddr::~EmailAddr() {
    while (next) {
        next = std::move(next->next);
    }
}

std::unique_ptr<EmailAddr> EmailAddr::copy(const EmailAddr* first) {
    std::unique_ptr<EmailAddr> head;
    std::unique_ptr<EmailAddr>* link = &head;
    for (const EmailAddr* record = first; record != nullptr; record = record->next.get()) {
        *link = std::make_unique<EmailAddr>(record->text(), nullptr, record->reason);
        link = &(*link)->next;
    }
    return head;
}

void EmailAddr::setAddr(char* dst, const char* text) {
    const std::string address = normalised(text);
    dst[address.copy(dst, kMaxText)] = '\0';
}

char* EmailAddr::addrOkay(char* text, bool allowNull) {
    const bool anyDomain = ::strncasecmp(mailscanGlobals::allow_nonrfc_domain, "yes", 3) == 0;
    return Email::acceptedAddress(text, allowNull, anyDomain);
}

bool EmailAddr::GetDomain(char* dst) const noexcept {
    // The last one: a quoted local part may hold others.
    const std::size_t at = address_.rfind('@');
    if (at == std::string::npos) {
        return false;
    }
    std::string_view domain = std::string_view(address_).substr(at + 1);
    domain = domain.substr(0, domain.find_last_not_of('>') + 1);
    if (domain.size() >= kDomainSize) {
        return false;
    }
    dst[domain.copy(dst, domain.size())] = '\0';
    return true;
}

bool EmailAddr::CheckForDirectSend() const noexcept {
    constexpr std::int32_t kSmtpPort = 25;
    std::array<char, kDomainSize> domain{};
    const char* const* entry = mailscanGlobals::direct_send_internal_domain;
    if (entry == nullptr || mailscanGlobals::mailSendPort == kSmtpPort ||
        !GetDomain(domain.data())) {
        return false;
    }
    // The first entry that differs decides: with one entry every other domain is sent directly,
    // with two different ones every domain is. Configurations in the field count on it.
    while (*entry != nullptr && std::strcmp(*entry, domain.data()) == 0) {
        ++entry;
    }
    return *entry != nullptr;
}

std::span<const IPaddress> EmailAddr::servers() const noexcept {
    return {MXhosts_.get(), MXcount_};
}

bool EmailAddr::serves(IPaddress addr) const noexcept {
    return std::ranges::find(servers(), addr) != servers().end();
}

bool EmailAddr::suitableHost(IPaddress addr) {
    // The gateway's own server takes what is sent directly, and nothing else.
    if (addr == IPaddress::loopback) {
        return CheckForDirectSend();
    }
    // Asked for every pair of recipient and server: without relay tables the addresses decide.
    const bool relays = !DomainRelay::stdRelays.empty() || !DomainRelay::fallbackRelays.empty();
    return doneMX_ && !relays ? serves(addr) : throughRelaysOrMX(addr);
}

bool EmailAddr::throughRelaysOrMX(IPaddress addr) {
    std::array<char, kDomainSize> domain{};
    const bool named = GetDomain(domain.data());
    IPaddressList relays;
    const int n = named ? DomainRelay::stdRelays.getGoodAddr(domain.data(), relays, kAnyCount) : 0;
    if (n >= 1 && relays.InList(addr)) {
        return true;
    }
    if (n < 0) {
        return false; // its relays are not known now: it goes nowhere else
    }
    if (n < 1 && !doneMX_) {
        if (named && !MXlookup::mayAnswer(domain.data())) {
            return false;
        }
        // Also when nothing is found: a record asks once.
        doneMX_ = true;
        lookUpMX(named ? domain.data() : nullptr);
    }
    if (MXcount_ != 0) {
        return serves(addr);
    }
    eventId event = EV_NONE;
    return named && n == 0 &&
           DomainRelay::fallbackRelays.getAddresses(domain.data(), relays, kAnyCount, event) >= 1 &&
           relays.InList(addr);
}

std::chrono::steady_clock::duration EmailAddr::lookAhead() const {
    using Clock = std::chrono::steady_clock;
    std::array<char, kDomainSize> domain{};
    IPaddressList found;
    if (doneMX_ || !GetDomain(domain.data()) ||
        DomainRelay::stdRelays.getGoodAddr(domain.data(), found, kAnyCount) >= 1) {
        return {};
    }
    const auto start = Clock::now();
    MXlookup finder;
    eventId event = EV_NONE;
    const int n = finder.getAddresses(domain.data(), found, kAnyCount, event);
    return n < 1 ? Clock::now() - start : Clock::duration::zero();
}

int EmailAddr::lookUpMX(const char* domain, Email::ServerObserver* observer) {
    if (domain == nullptr) {
        return -1;
    }
    IPaddressList all;
    IPaddressList found;
    eventId event = EV_NONE;
    // All of them: those in front may be on the blacklist.
    int count = MXlookup(observer).getAddresses(domain, all, kAnyCount, event);
    if (count >= 1) {
        count = found.AddNot(all, mailscanGlobals::max_addr_to_try, HostList::BlackL);
    }
    if (count < 1) {
        attempt = std::make_shared<const Email::Attempt>(nobodyToTry(all, event));
        return count;
    }
    MXcount_ = static_cast<std::uint8_t>(found.count());
    MXhosts_ = std::make_unique<IPaddress[]>(MXcount_);
    for (int i = 0; i < found.count(); ++i) {
        MXhosts_[static_cast<std::size_t>(i)] = found.addr(i);
    }
    return count;
}

int EmailAddr::GetMXhosts(IPaddressList& out, int max, Email::ServerObserver* observer) {
    if (!doneMX_) {
        doneMX_ = true;
        std::array<char, kDomainSize> domain{};
        const int count = lookUpMX(GetDomain(domain.data()) ? domain.data() : nullptr, observer);
        if (count < 1) {
            return count;
        }
    }
    for (const IPaddress server : servers()) {
        if (out.count() >= max || !out.Add(server)) {
            break;
        }
    }
    return out.count();
}
