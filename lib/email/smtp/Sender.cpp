#include "email/smtp/Sender.h"

#include "email/base/Alarm.h"
#include "email/base/Assert.h"
#include "email/site/DomainRelay.h"
#include "email/site/MXlookup.h"
#include "email/site/mailscanGlobals.h"
#include "email/smtp/Destination.h"
#include "email/smtp/SenderParts.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cerrno>
#include <chrono>

namespace {

constexpr const char* kUnit = "lib/email/Sender";
constexpr long kConnectLimit = 30; // seconds, as ExtSocketClass waits

using Clock = std::chrono::steady_clock;

} // namespace

bool Sender::CommandTimeOut() const noexcept {
    if (Email::Alarm::hasExpired()) {
        return true;
    }
    if (commandDeadline == DateTime()) {
        return false;
    }
    DateTime now;
    now.SetNow();
    return !(commandDeadline > now);
}

bool Sender::ReadBanner() {
    greeting = readReply(mailscanGlobals::initial_220_interval, nullptr);
    return greeting == SERVICE_READY;
}

void Sender::CloseTransport() noexcept {
    Close();
    if (heldSince_ && Clock::now() - *heldSince_ > holdLimit) {
        HostList::BlackL.Add(serverAddress);
    }
    heldSince_.reset();
    session_ = {};
    replyLost_ = false;
    silentReplies_ = 0;
}

bool Sender::giveUp(SMTPcode* code, SMTPcode value) noexcept {
    CloseTransport();
    Email::store(code, value);
    return false;
}

// The error number of the connection, 0 when it stands.
int Sender::openSocket(IPaddress address, int port) noexcept {
    int err = 0;
    Create(err); // without a socket the connection fails with EBADF
    sockaddr_in peer{};
    peer.sin_family = AF_INET;
    peer.sin_port = htons(static_cast<std::uint16_t>(port));
    peer.sin_addr.s_addr = address.value;
    Connect(reinterpret_cast<const sockaddr*>(&peer), sizeof peer, err);
    return err;
}

bool Sender::tryAddress(IPaddress address, int port) {
    beforeConnecting(address);
    serverAddress = address;
    const auto begun = Clock::now();
    conversation.tryServer(address);
    if (!decideProtection(address, port)) {
        return false;
    }
    if (const int err = openSocket(address, port); err != 0) {
        conversation.error =
            connectTimedOut() ? Email::noAnswer(err, kConnectLimit) : Email::errorText(err);
        HostList::BlackL.Add(address);
        logEvent(EV_CONNECT_FAILED, nullptr, err);
        CloseTransport();
        return false;
    }
    conversation.begin(Email::Stage::Greeting);
    if (ReadBanner() && !CommandTimeOut()) {
        heldSince_ = begun;
        logEvent(EV_CONNECTED, nullptr, 0);
        return !wantsSession() || openSession(address, port);
    }
    HostList::BlackL.Add(address);
    CloseTransport();
    logEvent(EV_NO_GREETING, nullptr, 0);
    return false;
}

bool Sender::tryOpen(const IPaddressList& list, int port) {
    if (list.count() > mailscanGlobals::max_addr_to_try) {
        assert_failure("Naddr <= mailscanGlobals::max_addr_to_try", kUnit, contractLine(152));
    }
    for (int i = 0; i < list.count(); ++i) {
        if (CommandTimeOut()) {
            return false;
        }
        const IPaddress address = list.addr(i);
        if (HostList::BlackL.InList(address, true)) {
            conversation.passOver(address);
        } else if (tryAddress(address, port)) {
            return true;
        }
    }
    return false;
}

bool Sender::tryRelays(DomainRelay& relays, const char* domain, bool& tried) {
    if (CommandTimeOut()) {
        return false;
    }
    IPaddressList list;
    eventId event = EV_NONE;
    const int n = relays.getAddresses(domain, list, mailscanGlobals::max_addr_to_try, event);
    tried = tried || n != 0;
    if (n < 1) {
        logEvent(event, nullptr, 0);
        return false;
    }
    logEvent(EV_RELAY_FOUND, nullptr, 0);
    if (tryOpen(list, Email::kMailPort)) {
        return true;
    }
    logEvent(EV_RELAYS_FAILED, nullptr, 0);
    return false;
}

bool Sender::OpenTransport(SMTPcode& code, EmailAddr* rcpt) {
    conversation = {};
    searchingFor = rcpt;
    const bool found = findServer(code, *rcpt);
    searchingFor = nullptr;
    return found;
}

bool Sender::findServer(SMTPcode& code, EmailAddr& rcpt) {
    using Kind = Email::Destination::Kind;
    const Email::Destination to = Email::Destination::of(rcpt);
    if (CommandTimeOut()) {
        code = TIMEOUTEXPIRED;
        return false;
    }
    code = COMMS_FAILED;
    logEvent(EV_CHOOSE_SERVER, nullptr, 0);
    if (to.kind == Kind::NoDomain) {
        logEvent(EV_BAD_DOMAIN, nullptr, 0);
        code = BADHOSTNAME;
        return false;
    }
    if (to.direct) {
        logEvent(EV_DIRECT, nullptr, 0);
    }
    domain_ = to.asked();
    // A direct send goes to the gateway's own server.
    level_ = to.direct ? Email::TlsLevel::None : Email::tlsPolicy().levelFor(to.asked());
    switch (to.kind) {
    case Kind::ThisHost:
        logEvent(EV_SELF_SEND, nullptr, 0);
        code = SELFSEND;
        return false;
    case Kind::Literal:
        return openLiteral(rcpt);
    default:
        return (to.direct && openDirect(to.port)) || openRouted(code, to.asked(), rcpt, to.direct);
    }
}

bool Sender::openDirect(int port) {
    IPaddressList loopback;
    loopback.Add(IPaddress::loopback);
    return tryOpen(loopback, port);
}

bool Sender::openLiteral(EmailAddr& rcpt) {
    IPaddressList list;
    return exchangersOf(rcpt, list) >= 1 && tryOpen(list, Email::kMailPort);
}

bool Sender::openRouted(SMTPcode& code, const char* domain, EmailAddr& rcpt, bool direct) {
    bool tried = false;
    if (!direct) {
        if (tryRelays(DomainRelay::stdRelays, domain, tried)) {
            return true;
        }
        if (tried) {
            return false;
        }
    }
    if (mailscanGlobals::dnsEnable && openExchangers(code, rcpt)) {
        return true;
    }
    if (code == TAKES_NO_MAIL) {
        return false;
    }
    if (tryRelays(DomainRelay::fallbackRelays, domain, tried)) {
        return true;
    }
    if (!conversation.server) {
        conversation.noneFound("");
    }
    if (code != MXHOST_NOT_FOUND && CommandTimeOut()) {
        code = TIMEOUTEXPIRED;
    }
    return false;
}

int Sender::exchangersOf(EmailAddr& rcpt, IPaddressList& list) {
    const int n = rcpt.GetMXhosts(list, mailscanGlobals::max_addr_to_try);
    if (rcpt.attempt != nullptr) {
        conversation.leftOut += rcpt.attempt->leftOut;
    }
    return n;
}

// Only a domain that does not exist, or that has no address at all, is without hope; a look-up that
// gave nothing this time is tried again later.
bool Sender::openExchangers(SMTPcode& code, EmailAddr& rcpt) {
    logEvent(EV_MX_START, nullptr, 0);
    IPaddressList list;
    const int n = exchangersOf(rcpt, list);
    if (n == MXlookup::kNullMx) {
        code = TAKES_NO_MAIL;
        return false;
    }
    if (n == -1) {
        code = MXHOST_NOT_FOUND;
        return false;
    }
    return tryOpen(list, Email::kMailPort);
}
