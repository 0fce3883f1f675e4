// What retryq can do. Each command returns the program's exit status.
#pragma once

#include "retryq/Format.h"
#include "retryq/Queue.h"
#include "retryq/Settings.h"

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

namespace Retryq {

enum Status : int {
    kDone = 0,
    kTrouble = 1, // something could not be done, or check found warnings
    kStop = 2,    // retryer could not run with this rule table
};

// What every command works with.
struct Context {
    const RuleTable& table;
    Queue queue;
    Screen screen;
    bool json = false; // one object a line in place of text
    std::time_t now = 0;
};

struct Filter {
    std::string domain;               // of a recipient; empty: any
    std::string sender;               // a part of the envelope sender
    std::string state;                // a state's name, or "held"
    std::optional<std::int32_t> code; // of a recipient
    std::int64_t olderThan = std::numeric_limits<std::int64_t>::min();   // seconds
    std::int64_t youngerThan = std::numeric_limits<std::int64_t>::max(); // seconds

    [[nodiscard]] bool accepts(const Message& message, const Recipients& recipients,
                               std::time_t now) const;
};

// A line a message, the oldest first.
int list(const Context& context, const Filter& filter);

// All about one message; its body too when asked.
int show(const Context& context, const std::string& leaf, bool body);

// Recipients by domain and age.
int summary(const Context& context);

// Where mail for the address would go now, and why. Looks names up, connects to nothing.
int route(const Context& context, const std::string& address);

// Judges rule table and spool directories; the status is that of the worst finding.
int check(const Context& context);

enum class Change {
    Remove, // delete the message
    Retry,  // make it due now
};
// Changes each message under its lock and logs it. Asks first on a terminal, unless `yes`; without
// a terminal to ask at, `yes` is needed.
int change(const Context& context, Change what, const std::vector<std::string>& leaves, bool yes);

// The queue's figures in the text format of Prometheus, to standard output, or durably to a file.
int metrics(const Context& context, const std::string& file);

// Reports that the spool cannot be opened (errno tells why); kTrouble.
int cannotOpenSpool(const Context& context);

} // namespace Retryq
