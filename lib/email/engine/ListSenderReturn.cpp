// How ListSender tells the sender of a message who cannot be reached.
#include "email/base/Assert.h"
#include "email/engine/DeliveryStatus.h"
#include "email/engine/ListSender.h"
#include "email/engine/ReturnMail.h"
#include "email/site/mailscanGlobals.h"
#include "email/telling/DeliveryLog.h"

#include <ostream>
#include <sstream>
#include <vector>

namespace {

void checkNotBad(bool bad) {
    if (bad) {
        assert_failure("!mailStr.bad() && !tempStr.bad()", "lib/email/ListSender", __LINE__);
    }
}

Email::FailedRecipient tellFailed(const EmailAddr& rcpt) {
    Email::FailedRecipient told{.address = rcpt.text(), .code = rcpt.reason};
    if (rcpt.attempt != nullptr) {
        told.server = rcpt.attempt->server;
        // A reply stands for the recipient's fate only where its code does.
        if (rcpt.attempt->reply.starts_with(std::to_string(rcpt.reason))) {
            told.reply = rcpt.attempt->reply;
        }
    }
    return told;
}

} // namespace

std::string ListSender::returnText(const MailList& failed, std::istream& text) const {
    if (mailscanGlobals::returnMailFormat == 0) {
        return Email::returnMail(recipients_.GetSender(), failed, text);
    }
    std::vector<Email::FailedRecipient> told;
    for (const EmailAddr* rcpt = failed.first(); rcpt != nullptr; rcpt = rcpt->next.get()) {
        told.push_back(tellFailed(*rcpt));
    }
    return Email::deliveryStatusMail({.sender = recipients_.GetSender(),
                                      .gatewayName = HostList::hostName(),
                                      .author = mailscanGlobals::tolvaneAdmin,
                                      .arrival = recipients_.firstSendTime(),
                                      .maxLines = mailscanGlobals::max_returned_line_count},
                                     told, text);
}

bool ListSender::BuildReturnMail(MailList& failed, std::ostream& out, std::istream& text) {
    checkNotBad(text.bad() || out.bad());
    const std::string mail = returnText(failed, text);
    failed.Destroy();
    out.write(mail.data(), static_cast<std::streamsize>(mail.size()));
    return true;
}

void ListSender::Bounce(MailList& failed, std::istream& text) {
    // Making it ends the alarm of this engine; time limits that a caller gave go on for both.
    ListSender returnEngine;
    if (!(commandDeadline == DateTime(0))) {
        returnEngine.setDeadLines(commandDeadline, finalDeadline);
    }
    if (Email::isNullSender(recipients_.GetSender())) {
        dropFailed(failed);
        return;
    }
    checkNotBad(text.bad());
    // Before the lines: a mail that there is no memory for tells nobody anything.
    std::istringstream mail(returnText(failed, text));
    tellEach(Email::LogLine::Returned, failed);
    returnEngine.returnMessage = true;
    // The list is kept until here for the lines of a return mail that is neither sent nor queued.
    if (returnEngine.sendNew("<>", recipients_.GetSender(), mail) == SEND_ERROR) {
        tellEach(Email::LogLine::ReturnLost, failed);
    }
    counts_ += returnEngine.counts_;
    failed.Destroy();
}

// One event speaks for all that are dropped; every recipient gets its line.
void ListSender::dropFailed(MailList& failed) {
    tellEach(Email::LogLine::Dropped, failed);
    if (const auto first = failed.Remove()) {
        logEvent(EV_NULL_SENDER_DROP, first->text(), first->reason);
    }
    failed.Destroy();
}
