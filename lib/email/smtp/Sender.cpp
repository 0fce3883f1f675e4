#include "email/smtp/Sender.h"

#include "email/base/Alarm.h"
#include "email/base/Assert.h"
#include "email/site/mailscanGlobals.h"
#include "email/smtp/SenderParts.h"
#include "email/smtp/ServerSearch.h"

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
    access_ = accessTo(address);
    port = access_ != nullptr ? access_->port : port;
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
    if (!protectAtOnce(address)) {
        return false;
    }
    if (ReadBanner() && !CommandTimeOut()) {
        // From the connection on: a greeting that came late held the walker as well.
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

// The search's driver: connects, and tells the events, as Sender does.
class Sender::Search final : public Email::ServerSearch::Driver {
public:
    explicit Search(Sender& sender) noexcept : sender_(sender) {}

    bool timeIsUp() override { return sender_.CommandTimeOut(); }
    void passed(eventId event) override { sender_.logEvent(event, nullptr, 0); }
    void headsFor(const Email::Destination& to) override {
        sender_.domain_ = to.asked();
        sender_.accessFailed_ = false;
        // A direct send goes to the gateway's own server.
        sender_.level_ =
            to.direct ? Email::TlsLevel::None : Email::tlsPolicy().levelFor(to.asked());
    }
    bool offer(const IPaddressList& servers, int port) override {
        return sender_.tryOpen(servers, port);
    }
    bool offerRelays(const IPaddressList& servers, const DomainRelay& relays) override {
        sender_.relays_ = &relays;
        const bool open = sender_.mayUseRelays() && sender_.tryOpen(servers, Email::kMailPort);
        sender_.relays_ = nullptr;
        return open;
    }
    bool mayPass() override { return sender_.accessFailed_; }

private:
    Sender& sender_;
};

bool Sender::tryRelays(DomainRelay& relays, const char* domain, bool& tried) {
    Search driver(*this);
    return Email::ServerSearch(driver, conversation).tryRelays(relays, domain, tried);
}

bool Sender::OpenTransport(SMTPcode& code, EmailAddr* rcpt) {
    conversation = {};
    searchingFor = rcpt;
    Search driver(*this);
    const bool found = Email::ServerSearch(driver, conversation).run(code, *rcpt);
    searchingFor = nullptr;
    return found;
}
