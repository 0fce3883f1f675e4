// Every line that the mail library writes to the system log: its text, its priority and when it is
// written stand in one table, and one writer fills the lines in. All lines go to facility daemon,
// begin with the process id as five digits and are documented in docs/log-lines.md.
//
// An outcome line is a fixed word and name=value fields in a fixed order, so that the story of one
// message or of one recipient can be found with grep. A recipient gets exactly one outcome line per
// attempt: delivered, return-delivered, deferred, returned or dropped. It is enough by itself: it
// tells with which server, how far the conversation came and what the server said.
//
// A value from outside can neither end its field nor begin another one: blanks, "=", "<", ">",
// quotes and backslashes in it are escaped like bytes that cannot be printed.
#pragma once

#include "email/base/eventId.h"
#include "email/telling/Attempt.h"

#include <array>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace Email {

enum class LogLine {
    // Outcomes of recipients
    Delivered,
    ReturnDelivered,
    Deferred,
    Returned,
    Dropped,
    ReturnLost,
    // Messages and their files
    Overdue,
    MoveFailed,
    TextOpenFailed,
    TextReadFailed,
    RewriteFailed,
    RecipientsUnreadable,
    CopyFailed,
    SyncFailed,
    DeleteFailed,
    OutOfMemory,
    RunStopped,
    SpoolUnreadable,
    // Conversations
    SelfSend,
    BadDomain,
    ConnectFailed,
    NoGreeting,
    TlsFailed,
    SignInFailed,
    // A run with many workers
    FewerWorkers,
    WorkerDied,
    DestinationLeft,
    RunEnded,
    // Progress, for debugging
    LookupStarted,
    LookupNoAddress,
    LookupNoDomain,
    LookupNoRecord,
    LookupTemporary,
    LookupNoneLeft,
    RelayFound,
    RelaysFailed,
    Connected,
    ChooseServer,
    DirectSend,
    OtherEvent,
    // The run
    WalkEnded,
    Stopped,
    // Trace of the walk and of one message
    TracePathTooLong,
    TraceAttempting,
    TraceUnableToOpen,
    TraceLocked,
    TraceFinished,
    TraceSending,
    TraceSendingFile,
    TraceDeferring,
    TraceSendingTo,
    TraceNoTransport,
    TraceProtocol,
    TraceNoProtocol,
    TraceSendingData,
    TraceNoData,
    TraceEnd,
    TraceCheckTime,
    TraceImmediateRetry,
    TraceNextAttempt,
};

// What lets a line through.
enum class LogGate {
    Always,
    MailLog, // "mail-log" is on
    Debug,   // the reporter's DebugMode is on
    Trace,   // the walker's trace switch is on: the caller asks before it calls
};

// One line. In the text, %m is the message's leaf name, %f the envelope sender, %t the recipient,
// %a the server's address, %c the result code, %r that code in words, %g the stage, %e an errno
// number and its text, %l the servers left out, %y the server's reply in quotes, %p the TLS
// protocol and cipher, %v by what the server was verified, each %s the next of the further texts
// and each %q the same in quotes. A name=value field whose value is not given is left out.
struct LogRow {
    LogLine line;
    eventId event; // the event that raises it, EV_NONE for a line without one
    int priority;  // of syslog(3)
    LogGate gate;
    const char* text;
};

// The table, in the order of LogLine.
[[nodiscard]] std::span<const LogRow> logTable() noexcept;

// The row of an event; OtherEvent's for an event without one.
[[nodiscard]] const LogRow& logRowOf(eventId event) noexcept;

// The values of one line. Texts come from outside: each is made safe and cut to kFieldLimit bytes
// before it is written; of the further texts, %s is made printable only.
struct LogFields {
    std::optional<std::string_view> message{}; // a path or a bare name
    std::optional<std::string_view> sender{};  // brackets are added where there are none
    std::optional<std::string_view> recipient{};
    const Attempt* attempt = nullptr; // server, stage, error, servers left out, reply
    std::optional<int> code{};
    std::optional<int> error{}; // errno; the attempt's own error goes before it
    std::array<std::string_view, 9> args{};
};

inline constexpr std::size_t kFieldLimit = 256;

// A name as it stands in a field, and an address, with the angle brackets that are added to it or
// were around it.
[[nodiscard]] std::string nameField(std::string_view name);
[[nodiscard]] std::string addressField(std::string_view address);

// The whole line, process id included, whatever its gate.
[[nodiscard]] std::string formatLine(LogLine line, const LogFields& fields);

// Writes the line unless its gate is closed.
void writeLine(LogLine line, const LogFields& fields);

// True when writeLine() would write.
[[nodiscard]] bool lineEnabled(LogLine line) noexcept;

} // namespace Email
