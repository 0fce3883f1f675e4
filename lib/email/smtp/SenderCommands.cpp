// The commands of Sender and the replies to them.
#include "email/site/mailscanGlobals.h"
#include "email/smtp/ReplyLine.h"
#include "email/smtp/Sender.h"
#include "email/smtp/SenderParts.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>

namespace {

constexpr int kTlsNeeded = 530;
constexpr long kQuitLimitMs = 1000;

using Clock = std::chrono::steady_clock;
using Email::milliseconds;
using Email::Stage;
using Email::store;

long long secondsSince(Clock::time_point start) noexcept {
    return std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - start).count();
}

} // namespace

bool success(int code) noexcept {
    return code >= 200 && code <= 299;
}

bool Sender::sendCommand(const char* cmd, const char* arg, long timeoutSecs, SMTPcode* code) {
    if (CommandTimeOut()) {
        // Out of courtesy: there is no time to wait for its reply.
        static constexpr std::string_view kQuit = "QUIT\r\n";
        if (!session_.pipeline.ahead()) {
            int err = 0;
            WriteN(kQuit.data(), static_cast<int>(kQuit.size()), kQuitLimitMs, err);
        }
        conversation.error = Email::errorText(ETIME);
        return giveUp(code, TIMEOUTEXPIRED);
    }
    store(code, COMMS_FAILED);
    Email::CommandRoom room{};
    const std::string_view line = Email::commandText(room, cmd, arg);
    if (line.empty()) {
        conversation.error = Email::errorText(0, "the command is too long or has a line break");
        return false;
    }
    if (silentReplies_ >= kMaxSilentReplies) {
        conversation.error = Email::errorText(ETIME, "the server has fallen silent");
        return false;
    }
    const bool written = writeCommand(line, timeoutSecs);
    if (secret_ != nullptr) {
        ::explicit_bzero(room.data(), room.size());
    }
    return written;
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
            hideSecret(conversation.reply);
            lineSaid(Side::Server, conversation.reply);
        }
        const auto reply = Email::parseReplyLine(text);
        if (reply && answer_ != nullptr) {
            // A line that was accepted has four characters before its text.
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
    if (session_.held.empty() && session_.pipeline.ahead()) {
        readWindow(timeoutSecs);
    }
    int number = session_.held.empty() ? readNumber(timeoutSecs) : takeHeld();
    if (late && number >= 500 && number <= 599) {
        number = COMMS_FAILED;
        conversation.error = Email::errorText(0, "perhaps the late reply to an earlier command");
    } else if (number == kTlsNeeded && conversation.tls == "no") {
        // RFC 3207, 4: it insists on what failed this time, and may not the next.
        number = COMMS_FAILED;
        conversation.error = Email::errorText(0, "the server wants the TLS that failed");
    }
    store(code, number);
    return number;
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
    SMTPcode number = COMMS_FAILED;
    const bool accepted =
        command(Stage::Rcpt, Email::kRcptTo, to, mailscanGlobals::RCPT_command_interval, &number);
    noteRecipient(number);
    store(code, number);
    return accepted;
}

bool Sender::SendRSET(SMTPcode* code) {
    return command(Stage::None, "RSET", nullptr, mailscanGlobals::MAIL_command_interval, code);
}

bool Sender::SendQUIT(SMTPcode* code) {
    const long limit = mailscanGlobals::MAIL_command_interval;
    if (!catchUp()) {
        return giveUp(code, COMMS_FAILED);
    }
    if (!sendCommand("QUIT", nullptr, limit, code)) {
        return false;
    }
    readReply(limit, code);
    return true;
}
