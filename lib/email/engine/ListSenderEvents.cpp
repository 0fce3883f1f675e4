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

// These speak for many recipients; whoever raises them has written a line for each.
bool hasItsLines(eventId event) {
    return event == EV_DELIVERED || event == EV_RETURN_DELIVERED || event == EV_NULL_SENDER_DROP;
}

std::optional<std::string_view> given(const char* text) {
    return text != nullptr ? std::optional<std::string_view>(text) : std::nullopt;
}

} // namespace

void ListSender::logEvent(eventId event, const char* text, int value) {
    const int error = errno; // of a text that cannot be read or a name that cannot be looked up
    if (event == EV_NONE) {
        return;
    }
    if (!hasItsLines(event)) {
        logStep(event, text, value, error);
    }
    reportStep(event, text, value);
}

void ListSender::tellTrouble(eventId event, int error) {
    logStep(event, nullptr, 0, error);
    reportStep(event, nullptr, 0);
}

void ListSender::reportStep(eventId event, const char* text, int value) {
    const SEvent& row = lookupSEvent(event);
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

void ListSender::logStep(eventId event, const char* text, int value, int error) const {
    const Email::LogRow& row = Email::logRowOf(event);
    if (!Email::lineEnabled(row.line)) {
        return;
    }
    LogFields fields{.message = messageName, .sender = recipients_.GetSender()};
    fields.recipient = given(current_ != nullptr ? current_->text() : text);
    fields.relay = event == EV_DEFERRED ? refuserOf(current_) : serverAddress;
    fields.code = value;
    fields.error = error;
    std::string first;
    std::string second;
    switch (row.line) {
    case LogLine::ConnectFailed:
        fields.error = value;
        break;
    case LogLine::NoGreeting:
        fields.code = greeting;
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

void ListSender::traceLine(LogLine line, const char* text) const {
    if (trace != 0) {
        Email::writeLine(line, {.args = {text != nullptr ? text : ""}});
    }
}

void ListSender::logRecipient(LogLine line, const EmailAddr& rcpt, int code,
                              IPaddress relay) const {
    Email::writeLine(line, {.message = messageName,
                            .sender = recipients_.GetSender(),
                            .recipient = rcpt.text(),
                            .relay = relay,
                            .code = code});
}

void ListSender::logEach(LogLine line, const MailList& list) const {
    for (const EmailAddr* rcpt = list.first(); rcpt != nullptr; rcpt = rcpt->next.get()) {
        logRecipient(line, *rcpt, rcpt->reason, refuserOf(rcpt));
    }
}

IPaddress ListSender::refuserOf(const EmailAddr* rcpt) const {
    const auto found = refusedBy_.find(rcpt);
    return found != refusedBy_.end() ? found->second : IPaddress::null;
}
