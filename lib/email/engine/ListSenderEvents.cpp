// How ListSender tells what it does: log lines and event records.
#include "email/engine/ListSender.h"
#include "email/telling/DeliveryLog.h"
#include "email/telling/deliveryEvents.h"
#include "libevrep/Reporter.h"

#include <cerrno>
#include <string>

using Email::LogFields;
using Email::LogLine;

namespace {

// One such event speaks for several recipients; each has got a line of its own where it was raised.
bool hasItsLines(eventId event) {
    return event == EV_DELIVERED || event == EV_RETURN_DELIVERED || event == EV_DEFERRED ||
           event == EV_NULL_SENDER_DROP;
}

} // namespace

void ListSender::logEvent(eventId event, const char* text, int value) {
    const int error = errno; // of a text that cannot be read or a name that cannot be looked up
    // A relay table without a relay for the domain says this.
    if (event == EV_NONE) {
        return;
    }
    if (!hasItsLines(event)) {
        logStep(event, searchingFor, error);
    }
    reportStep(event, text, value);
}

void ListSender::tellTrouble(eventId event, int error) {
    logStep(event, nullptr, error);
    reportStep(event, nullptr, 0);
}

void ListSender::reportStep(eventId event, const char* text, int value) {
    const SEvent& row = lookupSEvent(event);
    // Before the record is built: a run reports hardly any.
    if (!Email::kindWanted(row.kind)) {
        return;
    }
    const char* name = messageName ? messageName->c_str() : nullptr;
    GW_EVENT record = Email::deliveryEvent(row, {.messageSize = messageSize,
                                                 .server = serverAddress,
                                                 .serverName = serverName,
                                                 .messageName = name,
                                                 .sender = recipients_.GetSender(),
                                                 .text = text,
                                                 .value = value});
    Reporter::reportEvent(record);
}

// The conversation belongs to the line only when the line is about it: a file's trouble later on
// has nothing to do with the server of the recipient before.
void ListSender::logStep(eventId event, const EmailAddr* about, int error) const {
    const Email::LogRow& row = Email::logRowOf(event);
    if (!Email::lineEnabled(row.line)) {
        return;
    }
    LogFields fields{.message = messageName, .sender = recipients_.GetSender()};
    if (about != nullptr) {
        fields.recipient = about->text();
    }
    if (about != nullptr || event == EV_TEXT_READ_FAILED) {
        fields.attempt = &conversation;
    }
    fields.error = error;
    std::string first;
    std::string second;
    switch (row.line) {
    case LogLine::NoGreeting:
        fields.code = greeting;
        fields.error.reset();
        break;
    case LogLine::Overdue:
        first = std::to_string(DateTime(-1) - recipients_.firstSendTime());
        second = std::to_string(recipients_.tries());
        break;
    default:
        first = std::to_string(event);
        break;
    }
    fields.args = {first, second};
    Email::writeLine(row.line, fields);
}

void ListSender::tlsFailed(const std::string& why) {
    tellOfServer(LogLine::TlsFailed, why);
}

void ListSender::signInFailed(const std::string& why, bool /*relayRefuses*/) {
    tellOfServer(LogLine::SignInFailed, why);
}

void ListSender::tellOfServer(LogLine line, const std::string& why) {
    LogFields fields{.message = messageName, .attempt = &conversation, .args = {why}};
    if (searchingFor != nullptr) {
        fields.recipient = searchingFor->text();
    }
    Email::writeLine(line, fields);
}

void ListSender::traceLine(LogLine line, const char* text) const {
    if (trace != 0) {
        Email::writeLine(line, {.args = {text != nullptr ? text : ""}});
    }
}

void ListSender::tellOutcome(LogLine line, const EmailAddr& rcpt, int code,
                             const Email::Attempt* known) {
    counts_.count(line);
    Email::writeLine(line, {.message = messageName,
                            .sender = recipients_.GetSender(),
                            .recipient = rcpt.text(),
                            .attempt = known,
                            .code = code});
}

void ListSender::tellEach(LogLine line, const MailList& list) {
    for (const EmailAddr* rcpt = list.first(); rcpt != nullptr; rcpt = rcpt->next.get()) {
        if (!rcpt->leftOut) {
            tellOutcome(line, *rcpt, rcpt->reason, rcpt->attempt.get());
        }
    }
}
