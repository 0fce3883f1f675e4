#include "email/engine/ListSender.h"

#include "email/base/Alarm.h"
#include "email/base/Assert.h"
#include "email/engine/DeferredCopy.h"
#include "email/file/FdStream.h"
#include "email/file/FileReplacement.h"
#include "email/site/mailscanGlobals.h"
#include "email/telling/DeliveryLog.h"
#include "email/telling/deliveryEvents.h"
#include "libevrep/Reporter.h"

#include <cerrno>

using Email::LogLine;

namespace {

// True when the file is gone; else errno tells why it is not.
bool removed(const FileName& file) {
    return file.Delete() || errno == ENOENT;
}

} // namespace

ListSender::ListSender() {
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
    const FileName& directory =
        deferred ? mailscanGlobals::deferred_mail_path : mailscanGlobals::outgoing_mail;
    const FileName textFile(directory, entry, nullptr);
    const FileName rcptFile(directory, entry, deferred ? ".rmd" : ".rcp");
    journal_.reset();
    if (deferred) {
        journal_.emplace(rcptFile());
    }
    const SendResult result = sendQueued(entry, textFile, rcptFile, deferred);
    if (result == SEND_DEFERRED) {
        return true;
    }
    clear();
    deleteFiles(textFile, rcptFile);
    return result == SEND_FINISHED;
}

SendResult ListSender::sendQueued(const FileName& entry, const FileName& textFile,
                                  const FileName& rcptFile, bool deferred) {
    Email::FdStream text(textFile());
    if (!text.is_open()) {
        errno = text.error();
        logEvent(EV_TEXT_OPEN_FAILED, nullptr, 0);
        return SEND_ERROR;
    }
    errno = 0;
    if (!recipients_.Read(rcptFile, deferred)) {
        logEvent(EV_RCPT_READ_FAILED, nullptr, 0);
        return SEND_ERROR;
    }
    return Send(text, deferred, entry(), true);
}

// A left-over of a rewrite that was cut off goes first: nothing else would ever remove it. The text
// goes before its recipient file, since a text without one would stay for ever. A recipient file
// that cannot be deleted must not give anybody a second copy.
void ListSender::deleteFiles(const FileName& textFile, const FileName& rcptFile) {
    FileName(rcptFile, "~").Delete();
    const int textError = removed(textFile) ? 0 : errno;
    const int rcptError = removed(rcptFile) ? 0 : errno;
    if (rcptError != 0) {
        writeJournal();
    } else {
        removeJournal();
    }
    if (const int error = textError != 0 ? textError : rcptError; error != 0) {
        Email::writeLine(LogLine::DeleteFailed, {.message = textFile(), .error = error});
    }
}

bool ListSender::allDoneBefore() {
    return journal_ && journal_->takeDone(recipients_) && recipients_.IsEmpty();
}

void ListSender::noteDone(const MailList& done) {
    if (journal_) {
        journal_->note(done);
    }
}

void ListSender::writeJournal() {
    if (journal_) {
        journal_->flush();
    }
}

void ListSender::removeJournal() noexcept {
    if (journal_) {
        journal_->remove();
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
    const std::string name = Email::newReturnName();
    recipients_.setSender(sender);
    recipients_.Add(recipient, IDS_NO_REASON);
    return Send(text, false, name.c_str(), false);
}

SendResult ListSender::Send(std::istream& text, bool deferred, const char* name, bool onDisc) {
    MailList failed;
    refusedBy_.clear();
    traceLine(LogLine::TraceSending, name);
    messageName = name;
    const bool expired = deferred && CheckTime();
    if (deferred && !expired && tooSoon()) {
        return SEND_DEFERRED;
    }
    if (allDoneBefore()) {
        return SEND_FINISHED;
    }
    if (expired) {
        logEvent(EV_OVERDUE, nullptr, 0);
        Bounce(recipients_, text);
        return SEND_FINISHED;
    }
    if (!mayGoOut(deferred)) {
        failed.Add(recipients_, true, IDS_NO_REASON);
    } else {
        traceLine(LogLine::TraceSendingFile, nullptr);
        if (SendOnce(failed, text, deferred)) {
            return SEND_FINISHED;
        }
    }
    return settle(failed, text, deferred, name, onDisc);
}

// The size limit is a switch only: with any value but 0, fresh mail goes out at once only to a
// single recipient, and not at all when the recipient limit is 0.
bool ListSender::mayGoOut(bool deferred) const noexcept {
    return deferred || mailscanGlobals::directSendSizeLimit == 0 ||
           (mailscanGlobals::directSendRecipientLimit != 0 && recipients_.one());
}

SendResult ListSender::settle(MailList& failed, std::istream& text, bool deferred, const char* name,
                              bool onDisc) {
    traceLine(LogLine::TraceDeferring, nullptr);
    recipients_.ExtractDeferred(failed);
    if (!failed.IsEmpty()) {
        // A text that could not be read has done its harm (the recipients' codes say so); the
        // return mail quotes what can be read of it.
        text.clear();
        Bounce(failed, text);
    }
    if (recipients_.IsEmpty()) {
        return SEND_FINISHED;
    }
    if (mailscanGlobals::mailLogEnable) {
        reportDeferred();
    }
    const FileName leaf(name);
    if (!deferred) {
        return onDisc ? moveOutgoing(leaf) : storeNew(text, leaf);
    }
    if (!onDisc) {
        assert_failure("onDisc", "lib/email/ListSender", __LINE__);
    }
    return rewriteDeferred(leaf);
}

void ListSender::reportDeferred() {
    for (const EmailAddr* rcpt = recipients_.first(); rcpt != nullptr; rcpt = rcpt->next.get()) {
        current_ = rcpt;
        logEvent(EV_DEFERRED, rcpt->text(), rcpt->reason);
    }
    current_ = nullptr;
}

// A list that could not be rewritten keeps its old content: nobody is lost, and those served
// meanwhile get a second copy only if they cannot be written down elsewhere either.
SendResult ListSender::rewriteDeferred(const FileName& leaf) {
    errno = 0;
    if (!recipients_.OverWrite(FileName(mailscanGlobals::deferred_mail_path, leaf, ".rmd"))) {
        logEvent(EV_RMD_REWRITE_FAILED, nullptr, 0);
        writeJournal();
    } else {
        removeJournal();
    }
    return SEND_DEFERRED;
}

SendResult ListSender::moveOutgoing(const FileName& leaf) {
    const FileName copy(mailscanGlobals::deferred_mail_path, leaf, nullptr);
    errno = 0;
    if (!FileName(mailscanGlobals::outgoing_mail, leaf, nullptr).MoveTo(copy)) {
        logEvent(EV_MOVE_FAILED, nullptr, 0);
        return SEND_ERROR;
    }
    FileName(mailscanGlobals::outgoing_mail, leaf, ".rcp").Delete();
    return writeNewRecipients(copy);
}

// The text comes first: without a recipient file no walker sees it.
SendResult ListSender::storeNew(std::istream& text, const FileName& leaf) {
    FileName copy(mailscanGlobals::deferred_mail_path, leaf, nullptr);
    bool stored = Email::storeText(text, copy);
    for (int draw = 0; !stored && errno == EEXIST && draw < Email::kNameDraws; ++draw) {
        messageName = Email::newReturnName();
        copy = FileName(mailscanGlobals::deferred_mail_path(), messageName->c_str());
        stored = Email::storeText(text, copy);
    }
    if (!stored) {
        logEvent(EV_COPY_FAILED, nullptr, 0);
        return SEND_ERROR;
    }
    const SendResult result = writeNewRecipients(copy);
    if (result == SEND_ERROR) {
        copy.Delete();
    }
    return result;
}

SendResult ListSender::writeNewRecipients(const FileName& copy) {
    errno = 0;
    if (!recipients_.OverWrite(FileName(copy, ".rmd"))) {
        logEvent(EV_COPY_FAILED, nullptr, 0);
        return SEND_ERROR;
    }
    // Both names must outlive a power cut before the message that they replace is deleted. When
    // that cannot be had, they are there all the same.
    if (!Email::syncDirectory(copy())) {
        Email::writeLine(LogLine::SyncFailed, {.message = copy(), .error = errno});
    }
    return SEND_DEFERRED;
}
