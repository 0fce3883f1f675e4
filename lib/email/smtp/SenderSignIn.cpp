// How Sender opens a conversation with a relay that it signs in to ("relay-access"): TLS that is
// verified before anything else, EHLO, AUTH. Without that key nothing here is called.
//
// Whatever goes wrong is ours or the relay's fault and never the mail's: it is deferred. The relay
// then goes onto the blacklist, so that a wrong password is not tried with every message.
#include "email/site/DomainRelay.h"
#include "email/site/HostList.h"
#include "email/site/mailscanGlobals.h"
#include "email/smtp/Authentication.h"
#include "email/smtp/Sender.h"
#include "email/smtp/TlsChannel.h"
#include "email/smtp/TlsModule.h"

#include <algorithm>
#include <memory>
#include <utility>

using Email::Authentication;
using Email::RelayAccess;
using Email::Stage;

namespace {

constexpr int kSignedIn = 235;
constexpr int kChallenge = 334;
constexpr std::size_t kCodeLength = 4; // with the blank behind it

} // namespace

// True when the connection that stands is signed in as mail for this domain must be, or not at all.
bool Sender::isSignedInFor(const char* domain) const {
    if (!Email::relayAccess().wanted()) {
        return true;
    }
    std::string_view relay = DomainRelay::stdRelays.relayOf(domain, serverAddress);
    if (relay.empty()) {
        relay = DomainRelay::fallbackRelays.relayOf(domain, serverAddress);
    }
    return Email::relayAccess().trouble().empty() && Email::relayAccess().find(relay) == access_;
}

// Who we are to be for the relay that has this address; null for nobody.
const RelayAccess::Line* Sender::accessTo(IPaddress address) const {
    if (relays_ == nullptr || !Email::relayAccess().wanted()) {
        return nullptr;
    }
    return Email::relayAccess().find(relays_->relayOf(domain_.c_str(), address));
}

// Without the file nobody knows which relay must be signed in to.
bool Sender::mayUseRelays() {
    const std::string& trouble = Email::relayAccess().trouble();
    if (trouble.empty()) {
        return true;
    }
    const std::string why = "relay-access " + trouble;
    accessFailed_ = true;
    signInFailed(why, false);
    conversation.noneFound("relay-access");
    conversation.error = Email::errorText(0, why);
    return false;
}

bool Sender::failSignIn(const std::string& why) {
    accessFailed_ = true;
    HostList::BlackL.Add(serverAddress);
    signInFailed(why, true);
    CloseTransport();
    conversation.error = Email::errorText(0, why);
    return false;
}

// TLS from the start, for a relay that begins with it; what the relay greets with is inside.
bool Sender::protectAtOnce(IPaddress address) {
    if (access_ == nullptr || !access_->tlsFirst()) {
        return true;
    }
    std::string why;
    Email::TlsContext* const context =
        Email::tlsContext(mailscanGlobals::tlsAuthorities, mailscanGlobals::tlsCertificate, why);
    if (context != nullptr) {
        why = shakeHands(*context, address);
    }
    return why.empty() || tlsMissing(why);
}

// What a server may refuse EHLO with is no word on anybody's mail here.
bool Sender::openAsUser(IPaddress address, int port) {
    SMTPcode code = COMMS_FAILED;
    if (sayEhlo(code) && channel() == nullptr) {
        if (!secure(address, port)) {
            return false;
        }
        code = *session_.hello;
    }
    session_.hello = code;
    const std::string why = success(code) ? signIn() : "the relay does not answer EHLO with 250";
    return why.empty() || failSignIn(why);
}

// Empty when we are signed in, else why not.
std::string Sender::signIn() {
    const auto mechanism = Authentication::best(session_.offered);
    if (!mechanism) {
        return "the relay offers no AUTH that is known here";
    }
    std::unique_ptr<Email::SaslExchange> scram;
    if (*mechanism == Authentication::Mechanism::Scram) {
        std::string trouble;
        scram = Email::tlsContext(mailscanGlobals::tlsAuthorities, mailscanGlobals::tlsCertificate,
                                  trouble)
                    ->scram(access_->user, access_->password);
        if (scram == nullptr) {
            return "no random numbers for AUTH";
        }
    }
    conversation.begin(Stage::Auth);
    Authentication exchange(*mechanism, *access_, std::move(scram));
    return exchangeTexts(exchange, std::string(Authentication::nameOf(*mechanism)));
}

// The exchange ends it: it has few answers.
std::string Sender::exchangeTexts(Authentication& exchange, const std::string& name) {
    std::string said = exchange.begin();
    std::string challenge;
    int code = saySecret("AUTH", said, "AUTH " + name + (said == name ? "" : " ***"), challenge);
    while (code == kChallenge) {
        auto answer = exchange.answer(challenge);
        if (!answer) {
            return "AUTH " + name + ": the relay's challenge is not as it must be";
        }
        code = saySecret(nullptr, *answer, "***", challenge);
    }
    if (code == COMMS_FAILED) {
        return "AUTH " + name + ": " + conversation.error;
    }
    if (code != kSignedIn) {
        return "AUTH " + name + " was answered with " + std::to_string(code);
    }
    return exchange.complete() ? "" : "AUTH " + name + ": the relay did not prove who it is";
}

// The code of the reply, and what stands behind it. What we said is forgotten with it.
int Sender::saySecret(const char* command, std::string& text, const std::string& shown,
                      std::string& challenge) {
    const long limit = mailscanGlobals::MAIL_command_interval;
    conversation.begin(Stage::Auth);
    Secret secret{text, shown + "\r\n", {}};
    secret_ = &secret;
    SMTPcode code = COMMS_FAILED;
    if (command == nullptr ? sendCommand(text.c_str(), nullptr, limit, &code)
                           : sendCommand(command, text.c_str(), limit, &code)) {
        readReply(limit, &code);
    }
    secret_ = nullptr;
    Email::wipe(text);
    challenge = std::move(secret.challenge);
    return code;
}

// What is kept and shown of a reply: nothing of one that repeats what the server was told.
void Sender::hideSecret(std::string& reply) {
    if (secret_ == nullptr) {
        return;
    }
    secret_->challenge = reply.substr(std::min(reply.size(), kCodeLength));
    const std::string_view said = secret_->text.substr(secret_->text.rfind(' ') + 1);
    if (reply.find(access_->password) != std::string::npos ||
        (!said.empty() && reply.find(said) != std::string::npos)) {
        reply.replace(std::min(reply.size(), kCodeLength), std::string::npos, "***");
    }
}
