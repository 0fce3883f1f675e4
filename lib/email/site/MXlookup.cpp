#include "email/site/MXlookup.h"

#include "email/base/Semaphore.h"
#include "email/site/Exchangers.h"
#include "email/site/ServerNames.h"
#include "email/site/mailscanGlobals.h"

#include <arpa/nameser.h>

#include <array>
#include <chrono>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

struct Answer {
    std::vector<IPaddress> addresses;
    int max;
    int result;
    eventId event;
    Clock::time_point expiry;
};

class AnswerCache {
public:
    // The answer that is still good for the domain and the limit, or null.
    const Answer* find(const std::string& domain, int max) const {
        const auto at = answers_.find(domain);
        const bool good = at != answers_.end() && at->second.max == max &&
                          passBegan_.value_or(Clock::now()) < at->second.expiry;
        return good ? &at->second : nullptr;
    }

    void keep(const std::string& domain, const IPaddressList& list, int max, int result,
              eventId event) {
        if (!passBegan_) {
            makeRoom();
        }
        Answer answer{
            {}, max, result, event, Clock::now() + std::chrono::seconds(MXlookup::kCacheSeconds)};
        for (int i = 0; i < list.count(); ++i) {
            answer.addresses.push_back(list.addr(i));
        }
        answers_.insert_or_assign(domain, std::move(answer));
    }

    void clear() noexcept { answers_.clear(); }

    // Time stands still in a pass. Its answers are as many as its recipients at most, which are in
    // memory as well.
    void beginPass() {
        makeRoom();
        passBegan_ = Clock::now();
    }
    void endPass() noexcept { passBegan_.reset(); }

private:
    // Dropping all when all are fresh costs each domain one more question, and no order to keep.
    void makeRoom() {
        if (answers_.size() < MXlookup::kCacheEntries) {
            return;
        }
        const auto now = Clock::now();
        std::erase_if(answers_, [&](const auto& entry) { return entry.second.expiry <= now; });
        if (answers_.size() >= MXlookup::kCacheEntries) {
            answers_.clear();
        }
    }

    std::unordered_map<std::string, Answer> answers_;
    std::optional<Clock::time_point> passBegan_;
};

AnswerCache& cache() {
    static AnswerCache answers;
    return answers;
}

int useHeld(const Answer& answer, IPaddressList& out, eventId& event) {
    for (const IPaddress address : answer.addresses) {
        out.Add(address);
    }
    event = answer.event;
    return answer.result;
}

} // namespace

MXlookup::Pass::Pass() {
    cache().beginPass();
}

MXlookup::Pass::~Pass() {
    cache().endPass();
}

bool MXlookup::mayAnswer(const char* domain) {
    // cppcheck-suppress knownConditionTrueFalse ; ServerWaits sets it
    return !serverWaits_ || isLiteral(domain) ||
           cache().find(domain, IPaddressList::kCapacity) != nullptr;
}

int MXlookup::getAddresses(const char* domain, IPaddressList& out, int max, eventId& event) {
    if (out.count() > 0) {
        return lookUp(domain, out, max, event); // what is there already counts towards `max`
    }
    const std::string key = domain;
    const Answer* const held = observer_ == nullptr ? cache().find(key, max) : nullptr;
    if (held != nullptr) {
        return useHeld(*held, out, event);
    }
    const int result = lookUp(domain, out, max, event);
    if (observer_ != nullptr) {
        observer_->lookedUp(result, event);
    }
    cache().keep(key, out, max, result, event);
    return result;
}

int MXlookup::lookUp(const char* domain, IPaddressList& out, int max, eventId& event) {
    event = EV_NONE;
    if (isLiteral(domain)) {
        return takeHost(domain, domain, out, max);
    }
    if (mailscanGlobals::dnsRules != 0) {
        return lookUpByRfc(domain, out, max, event);
    }
    std::array<unsigned char, Resolver::kAnswerSize> msg{};
    int len = Resolver::kAnswerSize;
    const int result = resolver_.Query(domain, ns_c_in, ns_t_mx, msg.data(), len);
    return useAnswer(result, msg.data(), len, domain, out, max, event);
}

int MXlookup::takeHost(const char* name, const char* domain, IPaddressList& out, int max,
                       std::optional<int> preference) {
    const int before = out.count();
    const int found = hostLookup(name, out, max, true, {observer_, name, preference});
    Email::rememberServers(domain, out, before, name);
    return found;
}

int MXlookup::takeItself(const char* domain, IPaddressList& out, int max, eventId why) {
    if (observer_ != nullptr) {
        observer_->ownAddress(why);
    }
    return takeHost(domain, domain, out, max);
}

void MXlookup::tell(std::span<const Email::Exchanger> exchangers,
                    Email::Candidate::Fate fate) const {
    for (const Email::Exchanger& exchanger : exchangers) {
        Email::Asked{observer_, exchanger.name, exchanger.preference}.tell(fate);
    }
}

int MXlookup::useAnswer(int result, const unsigned char* msg, int len, const char* domain,
                        IPaddressList& out, int max, eventId& event) {
    event = EV_NONE;
    switch (result) {
    case QUERY_OK:
        return useExchangers(msg, len, domain, out, max, event);
    case QUERY_NO_DOMAIN:
        event = EV_MX_NO_DOMAIN;
        return -1;
    case QUERY_TEMPORARY:
        event = EV_MX_TEMPFAIL;
        return 0;
    case QUERY_NO_RECORD:
        event = EV_MX_NO_RECORD;
        break;
    // Whatever else the library says counts as no record.
    default:
        break;
    }
    return takeItself(domain, out, max, event);
}

int MXlookup::useExchangers(const unsigned char* msg, int len, const char* domain,
                            IPaddressList& out, int max, eventId& event) {
    Email::Exchangers mx;
    if (!resolver_.ParseQuery(msg, len, mx.names.data(), mx.preferences.data(), mx.count)) {
        // Counts as a domain that does not exist: its mail is returned. "dns-rules rfc" waits for
        // an answer that can be read.
        return -1;
    }
    Resolver::SortMXAnswers(mx.names.data(), mx.preferences.data(), mx.count);
    const std::vector<Email::Exchanger> gone = cutAtThisHost(mx);
    if (mx.count > 0) {
        const int found = takeExchangers(mx, domain, out, max, event);
        tell(gone, Email::Candidate::Fate::NotBetter);
        return found;
    }
    tell(gone, Email::Candidate::Fate::NotBetter);
    event = EV_MX_NONE_LEFT;
    return takeItself(domain, out, max, event);
}

// Those that go are handed back for the observer; without one nobody copies their names.
std::vector<Email::Exchanger> MXlookup::cutAtThisHost(Email::Exchangers& mx) const {
    std::vector<Email::Exchanger> gone;
    for (int i = 0; observer_ != nullptr && i < mx.count; ++i) {
        const auto at = static_cast<std::size_t>(i);
        gone.push_back({mx.names[at], mx.preferences[at]});
    }
    Resolver::RemoveSameServerMXAnswers(mx.names.data(), mx.preferences.data(), mx.count);
    if (observer_ != nullptr) {
        gone.erase(gone.begin(), gone.begin() + mx.count);
    }
    return gone;
}

int MXlookup::takeExchangers(const Email::Exchangers& mx, const char* domain, IPaddressList& out,
                             int max, eventId& event) {
    int last = 0;
    for (int i = 0; i < mx.count; ++i) {
        const auto at = static_cast<std::size_t>(i);
        const int found = takeHost(mx.names[at], domain, out, max, mx.preferences[at]);
        if (Semaphore::shuttingDown()) {
            return -1;
        }
        if (found >= max) {
            return found;
        }
        // A name that does not resolve gives -1 and takes nothing from those before.
        last = found > 0 ? found : last;
    }
    event = last > 0 ? event : EV_MX_NO_ADDRESS;
    return last;
}

void MXlookup::clearCache() noexcept {
    cache().clear();
}
