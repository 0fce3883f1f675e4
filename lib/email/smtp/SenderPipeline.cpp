// How Sender writes commands, ahead of their replies where the server offers PIPELINING; the order
// of a window stands in Pipeline.h. Without a plan every command is written by itself.
#include "email/site/mailscanGlobals.h"
#include "email/smtp/Sender.h"
#include "email/smtp/SenderParts.h"

#include <chrono>
#include <utility>

namespace {

using Clock = std::chrono::steady_clock;
using Email::milliseconds;

constexpr std::string_view kLoneDot = ".\r\n";

} // namespace

bool Sender::takesAhead() const noexcept {
    return mailscanGlobals::smtpExtensions && session_.offered.pipelining;
}

// A server that has said something already answers what it was not asked, or wants to end: with it
// every command waits for its reply, so that the two do not get out of step.
void Sender::sendAhead(std::vector<const char*> recipients) {
    if (!inputWaiting() && !replyLost_) {
        session_.pipeline.plan(std::move(recipients));
    }
}

void Sender::tellCommands(std::string_view lines) {
    if (secret_ != nullptr) {
        lineSaid(Side::Us, secret_->shown);
        return;
    }
    while (!lines.empty()) {
        const std::size_t length = lines.find('\n') + 1;
        lineSaid(Side::Us, lines.substr(0, length));
        lines.remove_prefix(length);
    }
}

bool Sender::writeCommand(std::string_view line, long timeoutSecs) {
    Email::Pipeline& pipeline = session_.pipeline;
    // Which command the next reply belongs to is not known any more.
    if (pipeline.active() && replyLost_ && session_.held.empty()) {
        conversation.error = Email::errorText(0, "an earlier reply is missing");
        return false;
    }
    const auto due = pipeline.due(line);
    if (!due) {
        conversation.error = Email::errorText(0, "another command is under way");
        return false;
    }
    if (due->empty()) {
        return true;
    }
    tellCommands(*due);
    int err = 0;
    const int length = static_cast<int>(due->size());
    const int sent = WriteN(due->data(), length, milliseconds(timeoutSecs), err);
    if (err != 0) {
        conversation.error = Email::errorText(err);
    }
    // Of a window that went out in part nobody knows how many replies will come.
    replyLost_ = replyLost_ || (pipeline.active() && (err != 0 || sent != length));
    return err == 0;
}

// A reply that is no refusal, perhaps one that nobody can read, may have been meant as a yes.
void Sender::noteRecipient(int code) noexcept {
    session_.mayHaveRecipients = session_.mayHaveRecipients || code < 400 || code > 599;
}

// The replies to all commands on the wire, before the first of them counts: one too few, and each
// may be the word on another recipient. Once the first recipient is refused nobody waits long for
// the others, who will be asked again.
void Sender::readWindow(long timeoutSecs) {
    const Email::Pipeline& pipeline = session_.pipeline;
    auto until = Clock::time_point::max();
    for (std::size_t i = 0; i <= pipeline.countAhead(); ++i) {
        if (i > 0 && (CommandTimeOut() || Clock::now() > until)) {
            break;
        }
        conversation.begin(conversation.stage);
        const long limit = i == 0                   ? timeoutSecs
                           : pipeline.isData(i - 1) ? mailscanGlobals::DATA_initiation_interval
                                                    : mailscanGlobals::RCPT_command_interval;
        const int number = readNumber(limit);
        session_.held.push_back({number, conversation.reply, conversation.error});
        if (GetExErr() != 0 || replyLost_) {
            break;
        }
        if (i < 2 && conversation.stage == Email::Stage::Mail && !success(number)) {
            until = Clock::now() + std::chrono::seconds(mailscanGlobals::MAIL_command_interval);
        }
    }
    if (replyLost_) {
        distrustHeld();
    }
}

void Sender::distrustHeld() {
    for (Session::Reply& reply : session_.held) {
        if (reply.number >= 500 && reply.number <= 599) {
            reply.number = COMMS_FAILED;
            reply.error = Email::errorText(0, "perhaps the reply to another command");
        }
    }
}

int Sender::takeHeld() {
    Session::Reply& reply = session_.held.front();
    const int number = reply.number;
    conversation.reply = std::move(reply.text);
    conversation.error = std::move(reply.error);
    session_.held.pop_front();
    return number;
}

// Ends what was begun ahead and is not wanted any more: no recipient was accepted. Then DATA is
// refused as well, or must get its dot with nothing before it (RFC 2920, 3.1). False when the
// server may take what comes next for a part of a text, and must hear nothing more.
bool Sender::catchUp() {
    while (session_.pipeline.ahead()) {
        if (session_.held.empty()) {
            return false;
        }
        const bool data = session_.pipeline.skip();
        const int number = takeHeld();
        if (data && number == START_DATA) {
            // For a recipient that was taken the dot alone would be an empty mail.
            return !session_.mayHaveRecipients && endEmpty(mailscanGlobals::MAIL_command_interval);
        }
        if (!data) {
            noteRecipient(number);
        }
    }
    return GetExErr() == 0;
}

bool Sender::endEmpty(long timeoutSecs) {
    int err = 0;
    lineSaid(Side::Us, kLoneDot);
    WriteN(kLoneDot.data(), static_cast<int>(kLoneDot.size()), milliseconds(timeoutSecs), err);
    readReply(timeoutSecs, nullptr);
    return err == 0 && GetExErr() == 0;
}
