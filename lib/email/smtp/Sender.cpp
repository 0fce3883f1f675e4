#include "email/smtp/Sender.h"

#include "email/base/Alarm.h"
#include "email/base/Assert.h"
#include "email/base/Semaphore.h"
#include "email/file/BoundedLineReader.h"
#include "email/site/DomainRelay.h"
#include "email/site/MXlookup.h"
#include "email/site/mailscanGlobals.h"
#include "email/smtp/BodyShaper.h"
#include "email/smtp/Destination.h"
#include "email/smtp/ReplyLine.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <istream>
#include <memory>
#include <string_view>
#include <utility>

namespace {

constexpr const char* kUnit = "lib/email/Sender";
constexpr long kQuitLimitMs = 1000;

constexpr long kConnectLimit = 30; // seconds, as ExtSocketClass waits

using Clock = std::chrono::steady_clock;
using Email::Stage;

void store(SMTPcode* code, int value) noexcept {
    if (code != nullptr) {
        *code = static_cast<SMTPcode>(value);
    }
}

long milliseconds(long seconds) noexcept {
    const long long ms = static_cast<long long>(seconds) * 1000;
    return static_cast<long>(std::clamp<long long>(ms, LONG_MIN, LONG_MAX));
}

long long secondsSince(Clock::time_point start) noexcept {
    return std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - start).count();
}

bool hasLineEnd(std::string_view text) noexcept {
    return text.find_first_of("\r\n") != std::string_view::npos;
}

// The command line with its ending; empty when it must not be sent.
std::string_view makeLine(std::array<char, Sender::kCommandLimit>& line, std::string_view cmd,
                          const char* arg) noexcept {
    const std::string_view argument = arg == nullptr ? "" : arg;
    const std::size_t length = cmd.size() + (arg == nullptr ? 0 : argument.size() + 1) + 2;
    if (length >= line.size() || hasLineEnd(cmd) || hasLineEnd(argument)) {
        return {};
    }
    char* end = std::copy(cmd.begin(), cmd.end(), line.begin());
    if (arg != nullptr) {
        *end++ = ' ';
        end = std::copy(argument.begin(), argument.end(), end);
    }
    *end++ = '\r';
    *end = '\n';
    return {line.data(), length};
}

} // namespace

bool success(int code) noexcept {
    return code >= 200 && code <= 299;
}

int GetFileSize(std::istream& stream) {
    const std::istream::pos_type here = stream.tellg();
    stream.seekg(0, std::ios::end);
    const std::streamoff size = stream.tellg();
    stream.seekg(here);
    return static_cast<int>(std::clamp<std::streamoff>(size, -1, INT32_MAX));
}

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

bool Sender::sendCommand(const char* cmd, const char* arg, long timeoutSecs, SMTPcode* code) {
    int err = 0;
    if (CommandTimeOut()) {
        static constexpr std::string_view kQuit = "QUIT\r\n";
        WriteN(kQuit.data(), static_cast<int>(kQuit.size()), kQuitLimitMs, err);
        conversation.error = Email::errorText(ETIME);
        return giveUp(code, TIMEOUTEXPIRED);
    }
    store(code, COMMS_FAILED);
    std::array<char, kCommandLimit> buffer{};
    const std::string_view line = makeLine(buffer, cmd, arg);
    if (line.empty()) {
        conversation.error = Email::errorText(0, "the command is too long or has a line break");
        return false;
    }
    if (silentReplies_ >= kMaxSilentReplies) {
        conversation.error = Email::errorText(ETIME, "the server has fallen silent");
        return false;
    }
    lineSaid(Side::Us, line);
    WriteN(line.data(), static_cast<int>(line.size()), milliseconds(timeoutSecs), err);
    if (err != 0) {
        conversation.error = Email::errorText(err);
    }
    return err == 0;
}

void Sender::tellMissingReply(int err, long timeoutSecs) {
    switch (err) {
    case 0:
        conversation.error = Email::errorText(0, "unreadable reply");
        break;
    case ETIME:
        conversation.error = Email::noAnswer(err, timeoutSecs);
        break;
    case ENODATA:
        conversation.error = Email::errorText(err, "the server closed the connection");
        break;
    default:
        conversation.error = Email::errorText(err);
    }
}

// The reply's number, or 1001. The buffer takes every line that can come: what a server sends must
// not reach the reader's check of a destination that is too small.
int Sender::readNumber(long timeoutSecs) {
    const auto longest = std::max<long long>(kLeastReplyLimit, kReplyLimitFactor * timeoutSecs);
    const auto start = Clock::now();
    std::array<char, kReadBufferSize> line{};
    for (int lines = 0; lines <= kMaxContinuations && secondsSince(start) < longest; ++lines) {
        int err = 0;
        const int length = ReadLine(line.data(), kReadBufferSize, milliseconds(timeoutSecs), err);
        silentReplies_ = err == ETIME ? silentReplies_ + 1 : 0;
        replyLost_ = replyLost_ || err == ETIME;
        const std::string_view text(line.data(), static_cast<std::size_t>(length));
        if (err == 0) {
            conversation.reply = text;
            lineSaid(Side::Server, text);
        }
        const auto reply = Email::parseReplyLine(text);
        if (reply && answer_ != nullptr) {
            answer_->addLine(text.substr(4));
        }
        if (!reply) {
            tellMissingReply(err, timeoutSecs);
            return COMMS_FAILED;
        }
        if (!reply->continues) {
            // Below 0 stands for "not tried yet", and no server's word may say that of a recipient.
            return reply->number < 0 ? COMMS_FAILED : reply->number;
        }
    }
    replyLost_ = true;
    conversation.error = Email::errorText(0, "a reply without end");
    return COMMS_FAILED;
}

int Sender::readReply(long timeoutSecs, SMTPcode* code) {
    const bool late = replyLost_;
    int number = readNumber(timeoutSecs);
    if (late && number >= 500 && number <= 599) {
        number = COMMS_FAILED;
        conversation.error = Email::errorText(0, "perhaps the late reply to an earlier command");
    }
    store(code, number);
    return number;
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
    store(code, value);
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

bool Sender::command(Stage stage, const char* cmd, const char* arg, long timeoutSecs,
                     SMTPcode* code) {
    conversation.begin(stage);
    return sendCommand(cmd, arg, timeoutSecs, code) && success(readReply(timeoutSecs, code));
}

bool Sender::SendHELO(SMTPcode* code) {
    if (session_.hello) {
        store(code, *session_.hello);
        return success(*session_.hello);
    }
    return command(Stage::Helo, "HELO", HostList::hostName(),
                   mailscanGlobals::MAIL_command_interval, code);
}

// In lower case, and with the blank that every command has before its argument: the gateway's other
// programs and the filters behind them know its mail by it.
bool Sender::SendMAIL(const char* from, SMTPcode* code) {
    if (session_.offered.tooLarge(needs_.wireSize)) {
        conversation.begin(Stage::Mail);
        conversation.error = Email::errorText(0, "the text is larger than the server takes");
        store(code, IDS_RTS552);
        return false;
    }
    const std::string argument = mailArgument(from);
    return command(Stage::Mail, "mail from:", argument.c_str(),
                   mailscanGlobals::MAIL_command_interval, code);
}

bool Sender::SendRCPT(const char* to, SMTPcode* code) {
    return command(Stage::Rcpt, "RCPT TO:", to, mailscanGlobals::RCPT_command_interval, code);
}

bool Sender::SendRSET(SMTPcode* code) {
    return command(Stage::None, "RSET", nullptr, mailscanGlobals::MAIL_command_interval, code);
}

bool Sender::SendQUIT(SMTPcode* code) {
    const long limit = mailscanGlobals::MAIL_command_interval;
    if (!sendCommand("QUIT", nullptr, limit, code)) {
        return false;
    }
    readReply(limit, code);
    return true;
}

// A part of the body in its wire form. Room for one line more than goes out at a time, and for the
// end.
struct Sender::Block {
    using Shaper = Email::BodyShaper;
    static constexpr std::size_t kRoom =
        kBlockSize + Shaper::kLineLimit + Shaper::kMaxGrowth + Shaper::kTerminator.size();

    char* begin = nullptr;
    char* end = begin;

    [[nodiscard]] std::size_t size() const noexcept {
        return static_cast<std::size_t>(end - begin);
    }
};

// Sends and empties the block. A count that falls short is a failure: a body is never cut silently.
bool Sender::writeBlock(Block& block) {
    if (theSocket < 0) {
        conversation.error = Email::errorText(EBADF);
        return false;
    }
    int err = 0;
    const int length = static_cast<int>(block.size());
    const long limit = mailscanGlobals::DATA_send_interval;
    const int sent = WriteN(block.begin, length, milliseconds(limit), err);
    block.end = block.begin;
    if (err != 0) {
        conversation.error = Email::errorText(err);
    } else if (sent != length) {
        conversation.error = Email::noAnswer(ETIME, limit);
    }
    return err == 0 && sent == length;
}

bool Sender::textUnreadable(SMTPcode* code, std::string why) {
    conversation.error = std::move(why);
    logEvent(EV_TEXT_READ_FAILED, nullptr, 0);
    return giveUp(code, DATASOURCEERROR);
}

// Shapes the text into the block and sends the block whenever it is full; the last one is left to
// the caller. True at the end of the text, and when the alarm has fired.
bool Sender::sendText(std::istream& message, Block& block, SMTPcode* code) {
    using Kind = Email::BoundedLineReader::Kind;
    using Shaper = Email::BodyShaper;
    Email::BoundedLineReader reader(message, Shaper::kLineLimit, Shaper::kPieceSize);
    Shaper shaper;
    for (;;) {
        const Email::BoundedLineReader::Item item = reader.next();
        if (Email::Alarm::hasExpired()) {
            return true;
        }
        if (item.kind == Kind::End) {
            return reader.consumed() >= messageSize ||
                   textUnreadable(code, Email::errorText(0, "the text became shorter"));
        }
        if (Semaphore::shuttingDown()) {
            return giveUp(code, COMMS_FAILED);
        }
        if (item.kind == Kind::Error) {
            return textUnreadable(code, Email::errorText(errno));
        }
        block.end = shaper.shape(item, block.end);
        if (block.size() >= kBlockSize && !writeBlock(block)) {
            return giveUp(code, COMMS_FAILED);
        }
    }
}

bool Sender::beginData(SMTPcode* code) {
    conversation.begin(Stage::Data);
    store(code, ACTION_OKA);
    const long limit = mailscanGlobals::DATA_initiation_interval;
    if (!sendCommand("DATA", nullptr, limit, code)) {
        return false;
    }
    const int number = readReply(limit, code);
    if (success(number)) {
        conversation.error = Email::errorText(0, "DATA was not answered with 354");
    }
    return number == START_DATA;
}

// Goes to the beginning of the text, which an earlier server's turn may have left at its end.
bool Sender::rewind(std::istream& message, SMTPcode* code) {
    conversation.begin(Stage::Body);
    message.clear();
    messageSize = GetFileSize(message);
    message.clear();
    message.seekg(0);
    return message ? true : textUnreadable(code, Email::errorText(errno));
}

// The last block of the text, the dot behind it, and the server's word on both.
bool Sender::endBody(Block& block, SMTPcode* code) {
    if (CommandTimeOut()) {
        store(code, TIMEOUTEXPIRED);
        return false;
    }
    block.end = std::copy_n(Email::BodyShaper::kTerminator.data(),
                            Email::BodyShaper::kTerminator.size(), block.end);
    if (!writeBlock(block)) {
        return giveUp(code, COMMS_FAILED);
    }
    conversation.begin(Stage::Dot);
    lineSaid(Side::Us, ".\r\n");
    return success(readReply(mailscanGlobals::DATA_final_interval, code));
}

bool Sender::SendDATA(std::istream& message, const char*, SMTPcode* code) {
    if (!beginData(code) || !rewind(message, code)) {
        return false;
    }
    if (bodyRoom_ == nullptr) {
        bodyRoom_ = std::make_unique_for_overwrite<char[]>(Block::kRoom);
    }
    Block block{bodyRoom_.get()};
    if (!sendText(message, block, code) || !endBody(block, code)) {
        return false;
    }
    heldSince_.reset();
    return true;
}
