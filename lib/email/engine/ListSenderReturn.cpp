// How ListSender tells the sender of a message who cannot be reached.
#include "email/base/Assert.h"
#include "email/engine/ListSender.h"
#include "email/engine/ReturnMail.h"
#include "email/telling/DeliveryLog.h"

#include <ostream>
#include <sstream>

namespace {

void checkNotBad(bool bad) {
    if (bad) {
        assert_failure("!mailStr.bad() && !tempStr.bad()", "lib/email/ListSender", __LINE__);
    }
}

} // namespace

bool ListSender::BuildReturnMail(MailList& failed, std::ostream& out, std::istream& text) {
    checkNotBad(text.bad() || out.bad());
    const std::string mail = Email::returnMail(recipients_.GetSender(), failed, text);
    failed.Destroy();
    out.write(mail.data(), static_cast<std::streamsize>(mail.size()));
    return true;
}

void ListSender::Bounce(MailList& failed, std::istream& text) {
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
    std::istringstream mail(Email::returnMail(recipients_.GetSender(), failed, text));
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
