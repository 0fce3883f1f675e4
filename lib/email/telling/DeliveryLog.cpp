#include "email/telling/DeliveryLog.h"

#include "email/base/resource.h"
#include "email/site/mailscanGlobals.h"
#include "fwall/hexesc.h"
#include "libevrep/Reporter.h"

#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <system_error>

namespace Email {

namespace {

// clang-format off
#define ATTEMPT " stage=%g error=%e left-out=%l reply=%y tls=%p verified=%v"
constexpr std::array kTable{
    LogRow{LogLine::Delivered, EV_DELIVERED, LOG_INFO, LogGate::MailLog,
           "delivered msg=%m from=%f to=%t relay=%a code=%c text=%r" ATTEMPT},
    LogRow{LogLine::ReturnDelivered, EV_RETURN_DELIVERED, LOG_INFO, LogGate::MailLog,
           "return-delivered msg=%m from=%f to=%t relay=%a code=%c text=%r" ATTEMPT},
    LogRow{LogLine::Deferred, EV_DEFERRED, LOG_INFO, LogGate::MailLog,
           "deferred msg=%m from=%f to=%t relay=%a code=%c text=%r" ATTEMPT},
    LogRow{LogLine::Returned, EV_NONE, LOG_NOTICE, LogGate::MailLog,
           "returned msg=%m from=%f to=%t relay=%a code=%c text=%r" ATTEMPT},
    LogRow{LogLine::Dropped, EV_NULL_SENDER_DROP, LOG_WARNING, LogGate::Always,
           "dropped msg=%m from=%f to=%t relay=%a code=%c text=%r" ATTEMPT},
    LogRow{LogLine::ReturnLost, EV_NONE, LOG_ERR, LogGate::Always,
           "return-lost msg=%m from=%f to=%t code=%c text=%r"},

    LogRow{LogLine::Overdue, EV_OVERDUE, LOG_NOTICE, LogGate::Always,
           "overdue msg=%m from=%f waited=%s tries=%s"},
    LogRow{LogLine::MoveFailed, EV_MOVE_FAILED, LOG_ERR, LogGate::Always,
           "move-failed msg=%m from=%f error=%e"},
    LogRow{LogLine::TextOpenFailed, EV_TEXT_OPEN_FAILED, LOG_ERR, LogGate::Always,
           "text-open-failed msg=%m error=%e action=delete"},
    LogRow{LogLine::TextReadFailed, EV_TEXT_READ_FAILED, LOG_ERR, LogGate::Always,
           "text-read-failed msg=%m from=%f error=%e"},
    LogRow{LogLine::RewriteFailed, EV_RMD_REWRITE_FAILED, LOG_ERR, LogGate::Always,
           "recipients-rewrite-failed msg=%m from=%f error=%e"},
    LogRow{LogLine::RecipientsUnreadable, EV_RCPT_READ_FAILED, LOG_ERR, LogGate::Always,
           "recipients-unreadable msg=%m error=%e action=delete"},
    LogRow{LogLine::CopyFailed, EV_COPY_FAILED, LOG_ERR, LogGate::Always,
           "deferred-copy-failed msg=%m from=%f error=%e"},
    LogRow{LogLine::SyncFailed, EV_NONE, LOG_ERR, LogGate::Always,
           "spool-sync-failed msg=%m error=%e"},
    LogRow{LogLine::DeleteFailed, EV_NONE, LOG_ERR, LogGate::Always,
           "delete-failed msg=%m error=%e"},
    LogRow{LogLine::OutOfMemory, EV_NONE, LOG_ERR, LogGate::Always, "out-of-memory msg=%m"},
    LogRow{LogLine::RunStopped, EV_NONE, LOG_ERR, LogGate::Always,
           "run-stopped msg=%m error=%e"},
    LogRow{LogLine::SpoolUnreadable, EV_NONE, LOG_ERR, LogGate::Always,
           "spool-unreadable dir=%q error=%e"},

    LogRow{LogLine::SelfSend, EV_SELF_SEND, LOG_WARNING, LogGate::Always,
           "self-send msg=%m from=%f to=%t"},
    LogRow{LogLine::BadDomain, EV_BAD_DOMAIN, LOG_WARNING, LogGate::Always,
           "bad-domain msg=%m from=%f to=%t"},
    LogRow{LogLine::ConnectFailed, EV_CONNECT_FAILED, LOG_INFO, LogGate::Always,
           "connect-failed msg=%m to=%t relay=%a error=%e"},
    LogRow{LogLine::NoGreeting, EV_NO_GREETING, LOG_INFO, LogGate::Always,
           "no-greeting msg=%m to=%t relay=%a code=%c text=%r error=%e reply=%y"},

    LogRow{LogLine::TlsFailed, EV_NONE, LOG_WARNING, LogGate::Always,
           "tls-failed msg=%m to=%t relay=%a reason=%q"},
    LogRow{LogLine::SignInFailed, EV_NONE, LOG_ERR, LogGate::Always,
           "sign-in-failed msg=%m to=%t relay=%a reason=%q reply=%y"},

    LogRow{LogLine::FewerWorkers, EV_NONE, LOG_NOTICE, LogGate::Always,
           "fewer-workers wanted=%s used=%s because=%s"},
    LogRow{LogLine::WorkerDied, EV_NONE, LOG_ERR, LogGate::Always,
           "worker-died msg=%m pid=%s %s=%s"},
    LogRow{LogLine::DestinationLeft, EV_NONE, LOG_INFO, LogGate::Always,
           "destination-left destination=%s messages=%s"},
    LogRow{LogLine::RunEnded, EV_NONE, LOG_INFO, LogGate::Always,
           "run-ended due=%s tried=%s left=%s died=%s waiting=%s"},

    LogRow{LogLine::LookupStarted, EV_MX_START, LOG_DEBUG, LogGate::Debug,
           "lookup-started msg=%m to=%t"},
    LogRow{LogLine::LookupNoAddress, EV_MX_NO_ADDRESS, LOG_DEBUG, LogGate::Debug,
           "lookup-no-address msg=%m to=%t"},
    LogRow{LogLine::LookupNoDomain, EV_MX_NO_DOMAIN, LOG_DEBUG, LogGate::Debug,
           "lookup-no-domain msg=%m to=%t"},
    LogRow{LogLine::LookupNoRecord, EV_MX_NO_RECORD, LOG_DEBUG, LogGate::Debug,
           "lookup-no-record msg=%m to=%t"},
    LogRow{LogLine::LookupTemporary, EV_MX_TEMPFAIL, LOG_DEBUG, LogGate::Debug,
           "lookup-temporary-failure msg=%m to=%t"},
    LogRow{LogLine::LookupNoneLeft, EV_MX_NONE_LEFT, LOG_DEBUG, LogGate::Debug,
           "lookup-none-left msg=%m to=%t"},
    LogRow{LogLine::RelayFound, EV_RELAY_FOUND, LOG_DEBUG, LogGate::Debug,
           "relay-found msg=%m to=%t"},
    LogRow{LogLine::RelaysFailed, EV_RELAYS_FAILED, LOG_DEBUG, LogGate::Debug,
           "relays-failed msg=%m to=%t"},
    LogRow{LogLine::Connected, EV_CONNECTED, LOG_DEBUG, LogGate::Debug,
           "connected msg=%m to=%t relay=%a"},
    LogRow{LogLine::ChooseServer, EV_CHOOSE_SERVER, LOG_DEBUG, LogGate::Debug,
           "choose-server msg=%m to=%t"},
    LogRow{LogLine::DirectSend, EV_DIRECT, LOG_DEBUG, LogGate::Debug,
           "direct-send msg=%m to=%t"},
    LogRow{LogLine::OtherEvent, EV_NONE, LOG_ERR, LogGate::Always,
           "event=%s msg=%m from=%f"},

    LogRow{LogLine::WalkEnded, EV_NONE, LOG_INFO, LogGate::Always,
           "walk-ended entries=%s attempted=%s held=%s delivered=%s return-delivered=%s deferred=%s"
           " returned=%s dropped=%s seconds=%s"},
    LogRow{LogLine::Stopped, EV_NONE, LOG_ERR, LogGate::Always,
           "stopped status=%s reason=\"%s\""},

    LogRow{LogLine::TracePathTooLong, EV_NONE, LOG_INFO, LogGate::Trace,
           "Unable to resolve pathname for a file"},
    LogRow{LogLine::TraceAttempting, EV_NONE, LOG_INFO, LogGate::Trace,
           "Attempting file '%s'"},
    LogRow{LogLine::TraceUnableToOpen, EV_NONE, LOG_CRIT, LogGate::Trace,
           "Unable to open '%s' error '%s'"},
    LogRow{LogLine::TraceLocked, EV_NONE, LOG_INFO, LogGate::Trace,
           "Exclusive on file '%s'"},
    LogRow{LogLine::TraceFinished, EV_NONE, LOG_INFO, LogGate::Trace,
           "Exclusively finished file '%s'"},
    LogRow{LogLine::TraceSending, EV_NONE, LOG_INFO, LogGate::Trace,
           "Sending '%s'"},
    LogRow{LogLine::TraceSendingFile, EV_NONE, LOG_INFO, LogGate::Trace,
           "   Sending File"},
    LogRow{LogLine::TraceDeferring, EV_NONE, LOG_INFO, LogGate::Trace,
           "   Deferring email"},
    LogRow{LogLine::TraceSendingTo, EV_NONE, LOG_INFO, LogGate::Trace,
           "   Sending to '%s'"},
    LogRow{LogLine::TraceNoTransport, EV_NONE, LOG_INFO, LogGate::Trace,
           "   Could not open transport for '%s'"},
    LogRow{LogLine::TraceProtocol, EV_NONE, LOG_INFO, LogGate::Trace,
           "   Protocol initialisation '%s'"},
    LogRow{LogLine::TraceNoProtocol, EV_NONE, LOG_INFO, LogGate::Trace,
           "   Could not initiate protocol initialisation for '%s'"},
    LogRow{LogLine::TraceSendingData, EV_NONE, LOG_INFO, LogGate::Trace,
           "   Sending data '%s'"},
    LogRow{LogLine::TraceNoData, EV_NONE, LOG_INFO, LogGate::Trace,
           "   Could not send DATA for '%s'"},
    LogRow{LogLine::TraceEnd, EV_NONE, LOG_INFO, LogGate::Trace,
           "   End of Conversation"},
    LogRow{LogLine::TraceCheckTime, EV_NONE, LOG_INFO, LogGate::Trace,
           "   CheckTime 1st time %s (%s) Time to retry = %s result = %s"},
    LogRow{LogLine::TraceImmediateRetry, EV_NONE, LOG_INFO, LogGate::Trace,
           "   Immediate retry required"},
    LogRow{LogLine::TraceNextAttempt, EV_NONE, LOG_INFO, LogGate::Trace,
           "   NextAttempt %s (%s) < %s (%s) IN %s seconds = %s"},
};
#undef ATTEMPT
// clang-format on

constexpr bool inOrder() {
    for (std::size_t i = 0; i < kTable.size(); ++i) {
        if (kTable[i].line != static_cast<LogLine>(i)) {
            return false;
        }
    }
    return true;
}
static_assert(inOrder());

constexpr std::size_t kPidWidth = 5; // digits, with leading zeros

// What would end a field or begin another one.
constexpr std::string_view kFieldMarks = " =<>\"'\\";

const LogRow& rowOf(LogLine line) noexcept {
    return kTable[static_cast<std::size_t>(line)];
}

std::string leafOf(std::string_view path) {
    return nameField(path.substr(path.rfind('/') + 1));
}

// Readable in its quotes; what could end them or pass for a field is escaped.
std::string quoted(std::string_view text) {
    return '"' + printable(text, kFieldLimit, "\"'\\=<>") + '"';
}

std::string serverText(IPaddress server) {
    std::array<char, IPaddress::kTextSize> text{};
    server.format(text.data());
    return text.data();
}

bool isAccepted(int code) noexcept {
    return code >= 200 && code <= 299;
}

std::string systemError(int error) {
    // Without a system error it is what stands in the file that cannot be used.
    return error == 0 ? errorText(0, "unusable content") : errorText(error);
}

template<typename Value, typename Text>
std::optional<std::string> textOf(const std::optional<Value>& value, Text text) {
    return value ? std::optional<std::string>(text(*value)) : std::nullopt;
}

// Fills one line in, conversion by conversion.
class LineWriter {
public:
    LineWriter(LogLine line, const LogFields& fields) : line_(line), fields_(fields) {}

    void append(std::string_view text, std::string& out) {
        for (;;) {
            // The template is ours; what fills it in is escaped before it gets here.
            const std::size_t mark = text.find('%');
            out += text.substr(0, mark);
            if (mark == std::string_view::npos) {
                return;
            }
            if (const auto value = valueOf(text[mark + 1])) {
                out += *value;
            } else { // the word goes, with the blank before it
                out.resize(std::min(out.rfind(' '), out.size()));
            }
            text.remove_prefix(mark + 2);
        }
    }

private:
    std::optional<std::string> valueOf(char conversion) {
        switch (conversion) {
        case 'm':
            return textOf(fields_.message, leafOf);
        case 'f':
            return textOf(fields_.sender, addressField);
        case 't':
            return textOf(fields_.recipient, addressField);
        case 'c':
            return textOf(fields_.code, [](int code) { return std::to_string(code); });
        case 'r':
            return textOf(fields_.code, [this](int code) { return codeText(code); });
        case 'e':
            // What the conversation says of itself tells more than a number.
            return attempt().error.empty() ? textOf(fields_.error, systemError)
                                           : printable(attempt().error, kFieldLimit);
        case 'q':
            return quoted(fields_.args.at(used_++));
        case 's':
            return printable(fields_.args.at(used_++), kFieldLimit);
        default:
            return attemptValue(conversion);
        }
    }

    std::optional<std::string> attemptValue(char conversion) const {
        switch (conversion) {
        case 'a':
            return textOf(attempt().server, serverText);
        case 'g':
            return given(stageName(attempt().stage), nameField);
        case 'l':
            return given(attempt().leftOut, nameField);
        case 'p':
            return given(attempt().tls, nameField);
        case 'v':
            return given(attempt().verified, nameField);
        default:
            return given(attempt().reply, quoted);
        }
    }

    // The code in words. One of 200 to 299 that did not settle the matter was not what was due.
    std::string codeText(int code) const {
        if (isAccepted(code)) {
            const bool served = line_ == LogLine::Delivered || line_ == LogLine::ReturnDelivered;
            // A 250 to what asked for 354, say: the server agreed to something else.
            return served ? "Accepted" : "Unexpected reply";
        }
        return code == IDS_NO_REASON ? "Not tried yet" : smtpString(static_cast<SMTPcode>(code));
    }

    template<typename Text>
    static std::optional<std::string> given(std::string_view value, Text text) {
        return value.empty() ? std::nullopt : std::optional<std::string>(text(value));
    }

    const Attempt& attempt() const noexcept {
        static const Attempt kNone;
        return fields_.attempt != nullptr ? *fields_.attempt : kNone;
    }

    const LogLine line_;
    const LogFields& fields_;
    std::size_t used_ = 0;
};

} // namespace

std::span<const LogRow> logTable() noexcept {
    return kTable;
}

const LogRow& logRowOf(eventId event) noexcept {
    const auto* row = std::find_if(kTable.begin(), kTable.end(), [event](const LogRow& candidate) {
        return event != EV_NONE && candidate.event == event;
    });
    return row != kTable.end() ? *row : rowOf(LogLine::OtherEvent);
}

std::string nameField(std::string_view name) {
    return printable(name, kFieldLimit, kFieldMarks);
}

std::string addressField(std::string_view address) {
    address.remove_prefix(address.starts_with('<') ? 1 : 0);
    address.remove_suffix(address.ends_with('>') ? 1 : 0);
    return '<' + nameField(address) + '>';
}

std::string formatLine(LogLine line, const LogFields& fields) {
    std::string out = std::to_string(::getpid());
    // Five digits or more: what reads these lines takes the word behind the first blank.
    out.insert(0, kPidWidth - std::min(out.size(), kPidWidth), '0').append(1, ' ');
    LineWriter(line, fields).append(rowOf(line).text, out);
    return out;
}

bool lineEnabled(LogLine line) noexcept {
    switch (rowOf(line).gate) {
    case LogGate::MailLog:
        return mailscanGlobals::mailLogEnable;
    case LogGate::Debug:
        return DebugMode != 0;
    default:
        return true;
    }
}

void writeLine(LogLine line, const LogFields& fields) {
    if (lineEnabled(line)) {
        const std::string text = formatLine(line, fields);
        // With the facility: the log may have been opened with another.
        ::syslog(LOG_DAEMON | rowOf(line).priority, "%s", text.c_str());
    }
}

} // namespace Email
