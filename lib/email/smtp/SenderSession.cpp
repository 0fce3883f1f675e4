// How Sender opens a conversation when the rule table asks for more than HELO: EHLO, and TLS as the
// recipient's domain must have it. With neither key nothing here is called.
#include "email/site/HostList.h"
#include "email/site/ServerNames.h"
#include "email/site/mailscanGlobals.h"
#include "email/smtp/Sender.h"
#include "email/smtp/TlsChannel.h"
#include "email/smtp/TlsModule.h"

#include <strings.h>

#include <array>
#include <cerrno>
#include <utility>

using Email::Stage;
using Email::TlsLevel;

namespace {

bool refused(int code) noexcept {
    return code >= 500 && code <= 599;
}

bool hungUp(int error) noexcept {
    return error == ENODATA || error == ECONNRESET || error == EPIPE;
}

const char* proofWord(Email::TlsProof proof) noexcept {
    static constexpr std::array kWords{"no", "ca", "dane"};
    return kWords.at(static_cast<std::size_t>(proof));
}

Email::DaneServer daneServer(std::string domain, IPaddress address, int port) {
    const Email::ServerIdentity server = Email::serverIdentity(domain, address);
    return {server.by == Email::NamedBy::RuleTable ? std::string() : std::move(domain), server.name,
            port};
}

} // namespace

bool Sender::wantsSession() const noexcept {
    return mailscanGlobals::smtpExtensions || required_.level != TlsLevel::None;
}

// False when it cannot be told now: then the server gets no mail, neither in the clear nor else.
// Asked before connecting, since look-ups may last longer than a server waits.
bool Sender::decideProtection(IPaddress address, int port) {
    // Who signs in tells a secret, whatever the domain asks for.
    required_ = {access_ != nullptr ? TlsLevel::Verify : level_, port};
    if (required_.level != TlsLevel::Dane) {
        return true;
    }
    required_.dane = Email::askDane(daneServer(domain_, address, port));
    switch (required_.dane.result) {
    case Email::DaneResult::NoRecords:
        required_.level = TlsLevel::May;
        return true;
    case Email::DaneResult::Unusable:
        required_.level = TlsLevel::Encrypt;
        return true;
    case Email::DaneResult::Usable:
        return true;
    case Email::DaneResult::Failed:
        break;
    }
    tlsFailed(required_.dane.why);
    conversation.error = Email::errorText(0, "TLS is required: " + required_.dane.why);
    return false;
}

bool Sender::openAgain(IPaddress address, int port) {
    const auto held = std::exchange(heldSince_, std::nullopt);
    CloseTransport();
    if (openSocket(address, port) == 0 && ReadBanner() && !CommandTimeOut()) {
        heldSince_ = held;
        return true;
    }
    HostList::BlackL.Add(address);
    CloseTransport();
    logEvent(EV_NO_GREETING, nullptr, 0);
    return false;
}

bool Sender::sayEhlo(SMTPcode& code) {
    session_.offered = {};
    answer_ = &session_.offered;
    const bool good = command(Stage::Helo, "EHLO", HostList::hostName(),
                              mailscanGlobals::MAIL_command_interval, &code);
    answer_ = nullptr;
    if (!good) {
        session_.offered = {};
    }
    return good;
}

// A server that does not know EHLO says so, or hangs up; either is asked again in the old way.
bool Sender::sayHello(IPaddress address, int port) {
    SMTPcode code = COMMS_FAILED;
    if (!sayEhlo(code)) {
        const bool again = code == COMMS_FAILED && hungUp(GetExErr());
        if (again && !openAgain(address, port)) {
            return false;
        }
        if (again || refused(code)) {
            command(Stage::Helo, "HELO", HostList::hostName(),
                    mailscanGlobals::MAIL_command_interval, &code);
        }
    }
    session_.hello = code;
    return true;
}

// True when the conversation may go on. What the server said to EHLO or HELO is for SendHELO() to
// tell, as ever.
bool Sender::openSession(IPaddress address, int port) {
    if (access_ != nullptr) {
        return openAsUser(address, port);
    }
    if (!sayHello(address, port)) {
        return false;
    }
    const bool hopeless = required_.level == TlsLevel::May && !session_.offered.startTls;
    return required_.level == TlsLevel::None || !success(*session_.hello) || hopeless ||
           secure(address, port);
}

bool Sender::secure(IPaddress address, int port) {
    std::string why = startTls(address);
    if (why.empty()) {
        why = helloBehindTls();
    }
    if (why.empty()) {
        return true;
    }
    if (required_.level == TlsLevel::May) {
        tlsFailed(why);
        return goOnInTheClear(address, port);
    }
    return tlsMissing(why);
}

bool Sender::tlsMissing(const std::string& why) {
    tlsFailed(why);
    accessFailed_ = accessFailed_ || access_ != nullptr;
    CloseTransport();
    conversation.error = Email::errorText(0, "TLS is required: " + why);
    return false;
}

// Empty unless the session is lost again: in TLS 1.3 a server that wants a certificate of ours, or
// another one, says so only when our handshake is over.
std::string Sender::helloBehindTls() {
    SMTPcode code = COMMS_FAILED;
    sayEhlo(code);
    session_.hello = code;
    if (code != COMMS_FAILED || (GetExErr() != EPROTO && !hungUp(GetExErr()))) {
        return {};
    }
    session_.broken = true;
    const std::string trouble = channel()->trouble();
    return trouble.empty() ? "the server closed the connection behind the handshake" : trouble;
}

// After a handshake that failed the connection is of no more use.
bool Sender::goOnInTheClear(IPaddress address, int port) {
    conversation.tls = "no";
    conversation.verified.clear();
    return !session_.broken || (openAgain(address, port) && sayHello(address, port));
}

// Empty when the connection is protected, else why it is not.
std::string Sender::startTls(IPaddress address) {
    if (!session_.offered.startTls) {
        return "the server does not offer it";
    }
    std::string trouble;
    Email::TlsContext* const context = Email::tlsContext(mailscanGlobals::tlsAuthorities,
                                                         mailscanGlobals::tlsCertificate, trouble);
    if (context == nullptr) {
        return trouble;
    }
    SMTPcode code = COMMS_FAILED;
    command(Stage::Helo, "STARTTLS", nullptr, mailscanGlobals::MAIL_command_interval, &code);
    if (code != SERVICE_READY) {
        session_.broken = code == COMMS_FAILED;
        return "the server answered STARTTLS with " + std::to_string(code);
    }
    return shakeHands(*context, address);
}

Email::TlsTarget Sender::tlsTarget() const {
    Email::TlsTarget target{session_.name, required_.level == TlsLevel::Verify};
    if (required_.level == TlsLevel::Dane) {
        const auto& names = required_.dane.names;
        target.tlsa = required_.dane.records;
        target.name = names.front();
        target.otherNames.assign(names.begin() + 1, names.end());
    }
    return target;
}

std::string Sender::shakeHands(Email::TlsContext& context, IPaddress address) {
    session_.broken = true;
    session_.name =
        access_ != nullptr ? std::string(access_->host) : Email::serverName(domain_, address);
    auto session = context.start(theSocket, tlsTarget());
    if (session == nullptr) {
        return "the server's name is not known";
    }
    auto channel = std::make_unique<Email::TlsChannel>(std::move(session), theSocket);
    if (!channel->handshake(1000L * mailscanGlobals::MAIL_command_interval)) {
        return channel->trouble();
    }
    session_.broken = false;
    conversation.tls = channel->protocol();
    conversation.verified = proofWord(channel->proof());
    if (const int bytes = protect(std::move(channel)); bytes > 0) {
        tlsFailed(std::to_string(bytes) + " bytes in the clear behind the reply to STARTTLS were"
                                          " thrown away");
    }
    return {};
}

// What another recipient's domain asks of the connection that stands.
bool Sender::mayShare(const EmailAddr& rcpt) const {
    std::array<char, EmailAddr::kDomainSize> domain{};
    const bool asks = Email::tlsPolicy().wanted() || Email::relayAccess().wanted();
    if (!asks || !rcpt.GetDomain(domain.data())) {
        return true;
    }
    if (!isSignedInFor(domain.data())) {
        return false;
    }
    const TlsLevel level = Email::tlsPolicy().levelFor(domain.data());
    if (level < TlsLevel::Encrypt) {
        return true;
    }
    if (level == TlsLevel::Dane) {
        return mayShareDane(domain.data());
    }
    return channel() != nullptr &&
           (level == TlsLevel::Encrypt ||
            (channel()->proof() == Email::TlsProof::Authority && !session_.name.empty() &&
             Email::serverName(domain.data(), serverAddress) == session_.name));
}

// The same domain asks the same of the same server. What is not known of another one would have to
// be asked for while the server waits; and its records allow names that ours do not.
bool Sender::mayShareDane(const char* domain) const {
    if (::strcasecmp(domain, domain_.c_str()) == 0) {
        return true;
    }
    const auto known = Email::knownDane(daneServer(domain, serverAddress, required_.port));
    return known && (known->result == Email::DaneResult::NoRecords ||
                     (known->result == Email::DaneResult::Unusable && channel() != nullptr));
}

// RFC 1870, 6152 and 6531: what the text and the addresses need, as far as the server offers it.
std::string Sender::mailArgument(const char* from) const {
    std::string argument = from;
    const Email::ServerExtensions& offered = session_.offered;
    if (!mailscanGlobals::smtpExtensions) {
        return argument;
    }
    if (offered.size && needs_.wireSize > 0) {
        argument += " SIZE=" + std::to_string(needs_.wireSize);
    }
    if (offered.eightBitMime && needs_.eightBit) {
        argument += " BODY=8BITMIME";
    }
    if (offered.smtpUtf8 && utf8Needed_) {
        argument += " SMTPUTF8";
    }
    return argument;
}

void Sender::consider(std::istream& text, bool utf8Needed) {
    needs_ = {};
    utf8Needed_ = utf8Needed;
    if (session_.offered.size || session_.offered.eightBitMime) {
        needs_ = Email::textNeeds(text);
    }
}
