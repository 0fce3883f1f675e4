#include "retryq/Probe.h"

#include "email/base/resource.h"
#include "email/site/DomainRelay.h"
#include "email/smtp/Sender.h"

#include <array>

namespace Retryq {

namespace {

class Prober final : public Sender {
public:
    void logEvent(eventId, const char*, int) override {}
    // Both come before the connection ends, and what is known of the server with it.
    void tlsFailed(const std::string& why) override {
        trouble_ = "TLS: " + why;
        offers_ = offered().text();
    }
    void signInFailed(const std::string& why, bool /*relayRefuses*/) override {
        trouble_ = "sign-in: " + why;
        offers_ = offered().text();
    }

    Probed ask(const std::string& address) {
        EmailAddr rcpt(address.c_str(), nullptr, IDS_NO_REASON);
        SMTPcode code = COMMS_FAILED;
        const bool open = OpenTransport(code, &rcpt);
        Probed found;
        found.passes = open && SendHELO(&code);
        found.offers = open ? offered().text() : offers_;
        found.user = found.passes ? user() : "";
        // Where TLS was tried in vain there is a word for it, but no protocol.
        found.tls = conversation.verified.empty() ? "" : conversation.tls;
        found.verified = conversation.verified;
        if (conversation.server) {
            std::array<char, IPaddress::kTextSize> dotted{};
            conversation.server->format(dotted.data());
            found.server = dotted.data();
        }
        found.trouble = troubleOf(found.passes, code);
        SendQUIT(nullptr);
        CloseTransport();
        return found;
    }

private:
    // What TLS said comes first: the other words only follow from it.
    std::string troubleOf(bool passes, SMTPcode code) const {
        if (passes || !trouble_.empty()) {
            return trouble_;
        }
        const std::string& words =
            conversation.reply.empty() ? conversation.error : conversation.reply;
        return words.empty() ? smtpString(code) : words;
    }

    std::string trouble_;
    std::string offers_; // of a server that was given up
};

} // namespace

Probed probe(const RuleTable& table, const std::string& address) {
    DomainRelay::initialise(table.records());
    return Prober().ask(address);
}

} // namespace Retryq
