#include "email/engine/ListSender.h"

#include "email/base/Alarm.h"
#include "email/base/Assert.h"
#include "email/file/FdStream.h"
#include "email/site/mailscanGlobals.h"
#include "email/telling/DeliveryLog.h"
#include "email/telling/deliveryEvents.h"
#include "libevrep/Reporter.h"

#include <cerrno>

using Email::LogLine;
using Email::Trouble;
using Queue = Email::QueuedMessage::Queue;

namespace {

// When so many texts in a row may not be opened, the fault is this host's and not theirs.
constexpr int kMostDenied = 10;

// A message is the engine's only while it is being attempted, however that ends.
class Attempted {
public:
    Attempted(Email::QueuedMessage*& place, Email::QueuedMessage* message) : place_(place) {
        place_ = message;
    }
    ~Attempted() { place_ = nullptr; }
    Attempted(const Attempted&) = delete;
    Attempted& operator=(const Attempted&) = delete;

private:
    Email::QueuedMessage*& place_;
};

} // namespace

ListSender::ListSender() {
    // The process has one alarm: that of an engine before must not end this one's conversations.
    SetAlarm(false, 0);
}

ListSender::~ListSender() {
    SetAlarm(false, 0);
}

void ListSender::clear() noexcept {
    messageSize = -1;
    serverName = nullptr;
    serverAddress = IPaddress::null;
    messageName.reset();
    trace = 0;
}

bool ListSender::Send(const FileName& entry, bool deferred, int traceLevel) {
    trace = traceLevel;
    messageName = entry();
    Email::QueuedMessage message(deferred ? Queue::Deferred : Queue::Outgoing, entry);
    const SendResult result = sendQueued(message, entry, deferred);
    if (result == SEND_DEFERRED) {
        return true;
    }
    clear();
    // Only a list that was read can be written back, without recipients, if it cannot be deleted.
    const Recipients* const head = result == SEND_FINISHED && deferred ? &recipients_ : nullptr;
    if (const Trouble trouble = message.remove(head)) {
        Email::writeLine(LogLine::DeleteFailed, {.message = message.text()(), .error = *trouble});
    }
    return result == SEND_FINISHED;
}

// In a large queue nearly all messages wait, and a run costs little but what is done for these: so
// their lists are read before their texts are opened. Not where the text's trouble may have to be
// told first.
SendResult ListSender::sendQueued(Email::QueuedMessage& message, const FileName& entry,
                                  bool deferred) {
    const auto readList = [&] { return message.read(recipients_, deferred ? listLock_ : nullptr); };
    const bool early = deferred && trace == 0 && Email::canBeOpened(message.text()());
    Trouble trouble = early ? readList() : Trouble();
    if (early && !trouble && !CheckTime() && tooSoon()) {
        deniedTexts_ = 0;
        return SEND_DEFERRED;
    }
    Email::FdStream text(message.text()());
    if (!text.is_open()) {
        return unusable(EV_TEXT_OPEN_FAILED, message.text(), text.error());
    }
    deniedTexts_ = 0;
    // What is wrong with the list is told only of a message whose text can be opened.
    trouble = early ? trouble : readList();
    return trouble ? unusable(EV_RCPT_READ_FAILED, message.text(), *trouble)
                   : attempt(text, deferred, entry(), &message);
}

SendResult ListSender::unusable(eventId event, const FileName& text, int error) {
    if (!mayBeMeant(error)) {
        stop(text(), error);
        return SEND_DEFERRED; // kept: the fault is the host's
    }
    tellTrouble(event, error);
    return SEND_ERROR;
}

// Whether an error can be this message's own. A shortage has been waited out by now.
bool ListSender::mayBeMeant(int error) noexcept {
    deniedTexts_ = error == EACCES || error == EPERM ? deniedTexts_ + 1 : 0;
    return !Email::isShortage(error) && deniedTexts_ < kMostDenied;
}

void ListSender::stop(const char* message, int error) {
    stopped_ = error;
    Email::writeLine(LogLine::RunStopped, {.message = message, .error = error});
}

bool ListSender::secured(const MailList& failed) {
    const Trouble trouble = queued_ != nullptr ? queued_->secure(recipients_, failed) : Trouble();
    if (trouble) {
        tellTrouble(EV_RMD_REWRITE_FAILED, *trouble);
    }
    return !trouble;
}

void ListSender::noteServed() noexcept {
    if (queued_ != nullptr) {
        queued_->noteServed();
    }
}

bool ListSender::Send(std::istream& text, const char* name) {
    const SendResult result = Send(text, false, name, false);
    clear();
    return result != SEND_ERROR;
}

bool ListSender::Send(const char* sender, const char* recipient, std::istream& text) {
    return sendNew(sender, recipient, text) != SEND_FINISHED;
}

SendResult ListSender::sendNew(const char* sender, const char* recipient, std::istream& text) {
    const std::string name = Email::QueuedMessage::newReturnName();
    recipients_.setSender(sender);
    recipients_.Add(recipient, IDS_NO_REASON);
    return Send(text, false, name.c_str(), false);
}

SendResult ListSender::Send(std::istream& text, bool deferred, const char* name, bool onDisc) {
    Email::QueuedMessage message(deferred ? Queue::Deferred : Queue::Outgoing, FileName(name));
    return attempt(text, deferred, name, onDisc ? &message : nullptr);
}

SendResult ListSender::attempt(std::istream& text, bool deferred, const char* name,
                               Email::QueuedMessage* message) {
    const Attempted scope(queued_, deferred ? message : nullptr);
    MailList failed;
    // What an earlier attempt found out is not this one's result.
    recipients_.forEach([](EmailAddr& rcpt) { rcpt.attempt.reset(); });
    traceLine(LogLine::TraceSending, name);
    messageName = name;
    const bool some = deferred && wanted_;
    const bool expired = deferred && !some && CheckTime();
    if (deferred && !expired && tooSoon()) {
        return SEND_DEFERRED;
    }
    if (some && !leaveOut(failed)) {
        return SEND_DEFERRED;
    }
    counts_.attempted += deferred ? 1 : 0;
    if (expired && !recipients_.IsEmpty()) {
        logEvent(EV_OVERDUE, nullptr, 0);
        Bounce(recipients_, text);
    }
    if (expired) {
        return SEND_FINISHED;
    }
    if (!mayGoOut(deferred)) {
        // Stored without an attempt: the next walk sends it.
        failed.Add(recipients_, true, IDS_NO_REASON);
    } else {
        traceLine(LogLine::TraceSendingFile, nullptr);
        if (SendOnce(failed, text, deferred)) {
            return SEND_FINISHED;
        }
    }
    return settle(failed, text, deferred, message);
}

// In the order of the list, on both sides.
bool ListSender::leaveOut(MailList& failed) {
    MailList back;
    while (auto rcpt = recipients_.Remove()) {
        back.Add(std::move(rcpt), IDS_NO_REASON);
    }
    while (auto rcpt = back.Remove()) {
        rcpt->leftOut = !wanted_(*rcpt);
        (rcpt->leftOut ? failed : recipients_).Add(std::move(rcpt), IDS_NO_REASON);
    }
    return !recipients_.IsEmpty();
}

// The size limit is a switch only: with any value but 0, fresh mail goes out at once only to a
// single recipient, and not at all when the recipient limit is 0.
bool ListSender::mayGoOut(bool deferred) const noexcept {
    return deferred || mailscanGlobals::directSendSizeLimit == 0 ||
           (mailscanGlobals::directSendRecipientLimit != 0 && recipients_.one());
}

SendResult ListSender::settle(MailList& failed, std::istream& text, bool deferred,
                              Email::QueuedMessage* message) {
    // The list could not be written before some conversation, so that was not begun: what stands on
    // disc stays for the next run.
    if (queued_ != nullptr && queued_->stuck()) {
        return SEND_DEFERRED;
    }
    traceLine(LogLine::TraceDeferring, nullptr);
    recipients_.ExtractDeferred(failed);
    if (!failed.IsEmpty()) {
        // The return mail has a conversation of its own: who was served stands in the list before
        // it.
        if (!secured(failed)) {
            return SEND_DEFERRED;
        }
        // A text that could not be read has done its harm (the recipients' codes say so); the
        // return mail quotes what can be read of it.
        text.clear();
        Bounce(failed, text);
    }
    if (recipients_.IsEmpty()) {
        return SEND_FINISHED;
    }
    reportDeferred();
    if (!deferred) {
        return message != nullptr ? moveOutgoing(*message) : storeNew(text);
    }
    if (message == nullptr) {
        assert_failure("onDisc", "lib/email/ListSender", __LINE__);
    }
    return rewriteDeferred(*message);
}

void ListSender::reportDeferred() {
    tellEach(LogLine::Deferred, recipients_);
    if (!mailscanGlobals::mailLogEnable) {
        return;
    }
    for (const EmailAddr* rcpt = recipients_.first(); rcpt != nullptr; rcpt = rcpt->next.get()) {
        if (!rcpt->leftOut) {
            logEvent(EV_DEFERRED, rcpt->text(), rcpt->reason);
        }
    }
}

// A list that cannot be rewritten keeps its old content: all on it are tried again, and those
// served in the last conversation get a second copy.
SendResult ListSender::rewriteDeferred(Email::QueuedMessage& message) {
    if (const Trouble trouble = message.rewrite(recipients_)) {
        tellTrouble(EV_RMD_REWRITE_FAILED, *trouble);
    }
    return SEND_DEFERRED;
}

SendResult ListSender::moveOutgoing(const Email::QueuedMessage& outgoing) {
    Email::QueuedMessage copy(Queue::Deferred, outgoing.text());
    if (const Trouble trouble = copy.adopt(outgoing)) {
        tellTrouble(EV_MOVE_FAILED, *trouble);
        return SEND_ERROR;
    }
    return writeFirstList(copy);
}

// The text comes first: without a recipient file no walker sees it.
SendResult ListSender::storeNew(std::istream& text) {
    for (int draw = 0;; ++draw) {
        Email::QueuedMessage copy(Queue::Deferred, FileName(messageName->c_str()));
        const Trouble trouble = copy.store(text);
        if (!trouble) {
            const SendResult result = writeFirstList(copy);
            if (result == SEND_ERROR) {
                // Without a list no walk would ever come across it.
                copy.text().Delete();
            }
            return result;
        }
        // Somebody may have taken the name since it was drawn.
        if (*trouble != EEXIST || draw == Email::QueuedMessage::kNameDraws) {
            tellTrouble(EV_COPY_FAILED, *trouble);
            return SEND_ERROR;
        }
        messageName = Email::QueuedMessage::newReturnName();
    }
}

SendResult ListSender::writeFirstList(Email::QueuedMessage& copy) {
    if (const Trouble trouble = copy.writeFirstList(recipients_)) {
        tellTrouble(EV_COPY_FAILED, *trouble);
        return SEND_ERROR;
    }
    // Both names must outlive a power cut before the message that they replace is deleted. When
    // that cannot be had, they are there all the same.
    if (const Trouble trouble = copy.sync()) {
        Email::writeLine(LogLine::SyncFailed, {.message = copy.text()(), .error = *trouble});
    }
    return SEND_DEFERRED;
}
