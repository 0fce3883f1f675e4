// One delivery pass of ListSender over its recipients.
#include "email/base/Semaphore.h"
#include "email/engine/ListSender.h"
#include "email/site/MXlookup.h"
#include "email/site/mailscanGlobals.h"
#include "email/telling/DeliveryLog.h"

#include <array>
#include <utility>
#include <vector>

using Email::LogLine;

bool ListSender::SendOnce(MailList& failed, std::istream& text, bool deferred) {
    // One for all conversations of the pass: a step that fails and stores no code leaves that of
    // the step before it, perhaps of the conversation before, as the recipient's result.
    SMTPcode code = COMMS_FAILED;
    const MXlookup::Pass pass;
    lookedAhead_ = false;
    while (!recipients_.IsEmpty() && (deferred || failed.IsEmpty()) && !Semaphore::shuttingDown() &&
           secured(failed)) {
        converse(failed, text, code);
    }
    failed.Add(recipients_, true, IDS_NO_REASON);
    CloseTransport();
    return failed.IsEmpty();
}

// Gathering asks for the servers of every other recipient between two commands. A few domains whose
// name servers are dead would take longer than the connected server waits, in every run again.
void ListSender::beforeConnecting(IPaddress server) {
    if (lookedAhead_ || server == IPaddress::loopback) {
        return;
    }
    lookedAhead_ = true;
    std::chrono::steady_clock::duration inVain{};
    for (const EmailAddr* rcpt = recipients_.first(); rcpt != nullptr && inVain < kLookAheadLimit;
         rcpt = rcpt->next.get()) {
        inVain += rcpt->lookAhead();
    }
}

// The first recipient decides about the server. QUIT is said whatever happened, but its reply must
// not replace the code.
void ListSender::converse(MailList& failed, std::istream& text, SMTPcode& code) {
    std::unique_ptr<EmailAddr> first = recipients_.Remove();
    const char* name = first->text();
    traceLine(LogLine::TraceSendingTo, name);
    if (!OpenTransport(code, first.get())) {
        traceLine(LogLine::TraceNoTransport, name);
        refuse(std::move(first), failed, code);
        return;
    }
    traceLine(LogLine::TraceProtocol, name);
    const bool greeted = SendHELO(&code);
    if (greeted && mailscanGlobals::smtpExtensions) {
        consider(text, needsUtf8(*first));
    }
    if (greeted && takesAhead()) {
        sendAhead(servedWith(*first));
    }
    if (greeted && SendMAIL(recipients_.GetSender(), &code) && SendRCPT(name, &code)) {
        deliver(std::move(first), failed, text, code);
    } else {
        traceLine(LogLine::TraceNoProtocol, name);
        refuse(std::move(first), failed, code);
    }
    SendQUIT(nullptr);
    CloseTransport();
}

bool ListSender::needsUtf8(const EmailAddr& first) const {
    bool needed = Email::isEightBit(recipients_.GetSender()) || Email::isEightBit(first.text());
    for (const EmailAddr* rcpt = recipients_.first(); rcpt != nullptr; rcpt = rcpt->next.get()) {
        needed = needed || Email::isEightBit(rcpt->text());
    }
    return needed;
}

// Whom the conversation will be about, in the order in which gather() asks.
std::vector<const char*> ListSender::servedWith(const EmailAddr& first) {
    const MXlookup::ServerWaits waits;
    std::vector<const char*> names{first.text()};
    recipients_.forEach([&](EmailAddr& rcpt) {
        if (rcpt.suitableHost(serverAddress) && mayShare(rcpt)) {
            names.push_back(rcpt.text());
        }
    });
    return names;
}

void ListSender::deliver(std::unique_ptr<EmailAddr> first, MailList& failed, std::istream& text,
                         SMTPcode& code) {
    const char* name = first->text();
    MailList accepted;
    accepted.Add(std::move(first), IDS_NO_REASON);
    gather(accepted, failed, code);
    traceLine(LogLine::TraceSendingData, name);
    if (!SendDATA(text, messageName ? messageName->c_str() : nullptr, &code)) {
        traceLine(LogLine::TraceNoData, name);
        refuseAll(accepted, failed, code);
        return;
    }
    // From now on the list on disc names somebody who has the mail.
    noteServed();
    reportDelivered(accepted, code);
    traceLine(LogLine::TraceEnd, nullptr);
}

void ListSender::gather(MailList& accepted, MailList& failed, SMTPcode& code) {
    const MXlookup::ServerWaits waits;
    MailList::Gathering gathering(recipients_, serverAddress,
                                  [this](const EmailAddr& rcpt) { return mayShare(rcpt); });
    while (auto rcpt = gathering.next()) {
        if (SendRCPT(rcpt->text(), &code)) {
            accepted.Add(std::move(rcpt), IDS_NO_REASON);
        } else {
            refuse(std::move(rcpt), failed, code);
        }
    }
}

std::shared_ptr<const Email::Attempt> ListSender::attemptAsOfNow() const {
    return conversation.known() ? std::make_shared<const Email::Attempt>(conversation) : nullptr;
}

void ListSender::refuse(std::unique_ptr<EmailAddr> rcpt, MailList& failed, SMTPcode code) {
    rcpt->attempt = attemptAsOfNow();
    failed.Add(std::move(rcpt), code);
}

void ListSender::refuseAll(MailList& accepted, MailList& failed, SMTPcode code) {
    const auto kept = attemptAsOfNow();
    accepted.forEach([&kept](EmailAddr& rcpt) { rcpt.attempt = kept; });
    failed.Add(accepted, true, code);
}

// The event names the recipients of a whole conversation in one bounded text, which has no room for
// many: so each recipient gets a line here, and the event writes none.
void ListSender::reportDelivered(const MailList& accepted, SMTPcode code) {
    const LogLine line = returnMessage ? LogLine::ReturnDelivered : LogLine::Delivered;
    for (const EmailAddr* rcpt = accepted.first(); rcpt != nullptr; rcpt = rcpt->next.get()) {
        tellOutcome(line, *rcpt, code, &conversation);
    }
    if (!mailscanGlobals::mailLogEnable) {
        return;
    }
    std::array<char, EmailAddr::kTextSize> names{};
    accepted.AllNames(names.data());
    logEvent(returnMessage ? EV_RETURN_DELIVERED : EV_DELIVERED, names.data(), 0);
}
