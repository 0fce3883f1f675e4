// What retryq can do. Each command returns the program's exit status.
#pragma once

#include "retryq/Filter.h"
#include "retryq/Format.h"
#include "retryq/Queue.h"
#include "retryq/Settings.h"

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

namespace Retryq {

enum Status : int {
    kDone = 0,
    kTrouble = 1,   // something could not be done, or check found warnings
    kStop = 2,      // retryer could not run with this rule table
    kLosesMail = 3, // it could, and would return or lose mail that can be delivered
    kNoTable = 255, // the same, where the status is to be retryer's
};

// What every command works with.
struct Context {
    const RuleTable& table;
    Queue queue;
    Screen screen;
    bool json = false; // one object a line in place of text
    std::time_t now = 0;
};

// How list shows what it found.
struct ListView {
    std::string sort = "age"; // age, size, tries, next or rcpts
    std::size_t limit = std::numeric_limits<std::size_t>::max();
    bool recipients = false; // each with its latest result
};

// How summary groups recipients, and which rows it shows.
struct SummaryView {
    std::string by = "domain"; // domain, code or sender
    std::string sort = "age";  // age or count
    std::size_t top = std::numeric_limits<std::size_t>::max();
};

// A line a message.
int list(const Context& context, const Filter& filter, const ListView& view);

// All about one message, named or begun; its body too when asked.
int show(const Context& context, const std::string& name, bool body);

// Recipients by domain, result or sender, and by age.
int summary(const Context& context, const SummaryView& view);

// Where mail for the address would go now, and why. Looks names up; connects to nothing, but for a
// probe.
int route(const Context& context, const std::string& address, bool probing);

// Judges rule table, host and spool directories; the status is that of the worst finding. Root
// judges the spools with the rights of `user`; when that is empty, of the walkers' unit.
int check(const Context& context, const std::string& user);

// Looks at the rule table alone, quickly: kNoTable when retryer would stop, and says why to
// standard error; else kDone without a word.
int checkFatal(const Context& context);

// Every key that retryer reads, its value in force, where that comes from and what it is for. Works
// with any rule table.
int showSettings(const Context& context);

// The settings in force, a line each.
void reportSettings(const Context& context);

enum class Change {
    Remove,  // delete the message, or one recipient of it
    Retry,   // make it due now
    Hold,    // let every walker pass it over
    Release, // let them try it again
    Return,  // give it up now: the sender gets the return mail
};
struct Changes {
    std::vector<std::string> names; // of messages, or how they begin
    Filter filter;
    bool yes = false;      // do not ask
    std::string recipient; // Remove takes just this one off; without names, wherever it stands
};
// Changes each message under its lock and logs it. Asks first on a terminal, unless `yes`; without
// a terminal to ask at, `yes` is needed.
int change(const Context& context, Change what, const Changes& wanted);

struct RunOptions {
    bool now = false; // the minimum deferral does not hold messages back
    int workers = 200;
    int perDestination = 20; // conversations at once with one domain, and with one server
    int progress = 60;       // seconds between two lines about it, where there is no terminal
};
// Tries what is due, with many conversations at once. The status is the worst of its workers'.
int run(const Context& context, const RunOptions& options);

struct Delivery {
    std::vector<std::string> names; // of messages, or how they begin
    Filter filter;
    bool trace = false; // show the conversations
};
// Tries these messages now, whatever their schedule, and shows what becomes of each recipient.
// kTrouble when there are none, or some were not tried.
int deliver(const Context& context, const Delivery& delivery);

// What each walker and worker does now, and who holds each lock.
int who(const Context& context);

// False, with the command's line on standard error, when this user has no right to change the
// spool: whatever were tried would be left undone, or be done and then not noted.
[[nodiscard]] bool mayChange(const Context& context, const char* command);

// Reports that the spool cannot be opened (errno tells why); kTrouble.
int cannotOpenSpool(const Context& context);

} // namespace Retryq
