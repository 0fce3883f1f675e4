#include "email/engine/MailReSender.h"
#include "email/engine/RetrySchedule.h"
#include "email/file/FdStream.h"
#include "email/site/DomainRelay.h"
#include "email/site/mailscanGlobals.h"
#include "email/spool/MessageLock.h"
#include "email/spool/QueuedMessage.h"
#include "email/telling/DeliveryLog.h"
#include "fwall/hexesc.h"
#include "retryq/Commands.h"
#include "retryq/Json.h"
#include "retryq/ListText.h"
#include "retryq/Selection.h"

#include <pwd.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <iterator>

namespace Retryq {

namespace {

using Email::MessageLock;

constexpr std::size_t kShown = 256;
constexpr std::int32_t kNever = -2000000000; // seconds: whatever was tried once is overdue

// The person behind the command, also behind sudo. Anybody can set SUDO_USER: so the line has the
// real user's number as well.
std::string operatorName() {
    const char* const behind = std::getenv("SUDO_USER");
    if (behind != nullptr && *behind != '\0') {
        return behind;
    }
    const passwd* const user = ::getpwuid(::getuid());
    return user == nullptr ? std::to_string(::getuid()) : user->pw_name;
}

// In the form of retryer's own lines, so that one grep finds the whole story of a message.
void logChange(const char* word, const Message& message, const std::string& rest) {
    ::syslog(LOG_DAEMON | LOG_NOTICE, "%05d %s msg=%s from=%s %s by=%s uid=%u",
             static_cast<int>(::getpid()), word, Email::nameField(message.leaf).c_str(),
             Email::addressField(message.sender).c_str(), rest.c_str(),
             Email::nameField(operatorName()).c_str(), static_cast<unsigned>(::getuid()));
}

struct ChangeWords {
    const char* command;
    const char* question;
    const char* end;
};

ChangeWords wordsOf(Change what) {
    switch (what) {
    case Change::Remove:
        return {"remove", "Delete ", " for good"};
    case Change::Retry:
        return {"retry", "Make due now: ", ""};
    case Change::Hold:
        return {"hold", "Put on hold: ", ""};
    case Change::Release:
        return {"release", "Release: ", ""};
    case Change::Return:
        break;
    }
    return {"return", "Return to the sender, now: ", ""};
}

// Puts the question; true for yes.
bool confirmed(const Context& context, Change what, std::size_t messages) {
    const ChangeWords words = wordsOf(what);
    context.screen.out << words.question
                       << (messages == 1 ? "this message" : std::to_string(messages) + " messages")
                       << words.end << "? [y/N] " << std::flush;
    std::string answer;
    std::getline(std::cin, answer);
    return answer == "y" || answer == "Y" || answer == "yes";
}

// Works on the messages of one command, each under its lock.
class Changer {
public:
    Changer(const Context& context, Change what, const std::string& recipient)
        : context_(context), what_(what), recipient_(recipient) {}

    bool apply(const std::string& leaf) {
        // A path could lead out of the queue.
        if (leaf.empty() || leaf.find('/') != std::string::npos) {
            return fail(leaf, "is no message's name");
        }
        Message message;
        Recipients recipients;
        const bool whole = context_.queue.find(leaf, message, recipients);
        message.leaf = leaf;
        const std::string list = message.hold
                                     ? context_.queue.directory() + message.hold->listName()
                                     : context_.queue.recipientPath(leaf);
        if (what_ == Change::Return) {
            return giveUp(message, whole);
        }
        const MessageLock lock(list);
        if (lock.state() == MessageLock::State::Busy) {
            return fail(leaf, "is being worked on; left alone");
        }
        if (lock.state() == MessageLock::State::NotOpened) {
            return fail(leaf, std::string("cannot be locked: ") + std::strerror(lock.error()));
        }
        // What was read before the lock may be out of date.
        return change(message, recipients, context_.queue.find(leaf, message, recipients));
    }

private:
    bool change(Message& message, const Recipients& recipients, bool whole) {
        switch (what_) {
        case Change::Remove:
            return recipient_.empty() ? removeAll(message, recipients) : removeRecipient(message);
        case Change::Hold:
            return whole ? hold(message) : fail(message.leaf, "has no message text");
        case Change::Release:
            return release(message);
        default:
            return whole ? retry(message) : fail(message.leaf, "has no message text");
        }
    }

    bool hold(const Message& message) {
        if (message.hold) {
            return done(message.leaf, "is on hold already");
        }
        const Email::Hold hold{message.leaf, ::getuid(), context_.now};
        if (const int error = hold.put(context_.queue.directory()); error != 0) {
            return fail(message.leaf,
                        std::string("cannot be put on hold: ") + std::strerror(error));
        }
        logChange("put-on-hold", message, "state=" + std::string(stateName(message.state)));
        return done(message.leaf, "is on hold");
    }

    bool release(Message& message) {
        if (!message.hold) {
            return fail(message.leaf, "is not on hold");
        }
        const Email::Hold hold = *std::exchange(message.hold, std::nullopt);
        if (const int error = hold.release(context_.queue.directory()); error != 0) {
            return fail(message.leaf, std::string("cannot be released: ") + std::strerror(error));
        }
        logChange("released", message, "since=" + isoTimeText(hold.since));
        return done(message.leaf, "is released");
    }

    // The engine's own way with an overdue message: lock, return mail and deletion are its.
    bool giveUp(const Message& message, bool whole) {
        if (!whole || message.hold || message.state == State::Unreadable) {
            return fail(message.leaf, message.hold ? "is on hold: release it first"
                                      : whole      ? "has an unreadable recipient file"
                                                   : "has no message text");
        }
        // Before the engine's own lines, which tell what came of it.
        logChange("given-up", message, "tries=" + std::to_string(message.tries));
        const std::int32_t usual = std::exchange(mailscanGlobals::retry_max_interval, kNever);
        FileName entry(context_.queue.textPath(message.leaf).c_str());
        MailReSender().tryFile(&entry);
        mailscanGlobals::retry_max_interval = usual;
        if (::access(context_.queue.recipientPath(message.leaf).c_str(), F_OK) == 0) {
            return fail(message.leaf,
                        "was not returned: somebody works on it, or the log tells why");
        }
        return done(message.leaf, "is returned");
    }

    // One recipient off the list; a message that nobody is left of goes as a whole.
    bool removeRecipient(const Message& message) {
        const std::string path = context_.queue.recipientPath(message.leaf);
        if (message.hold) {
            return fail(message.leaf, "is on hold: release it first");
        }
        Email::FdStream in(path.c_str());
        const std::string old{std::istreambuf_iterator<char>(in), {}};
        std::vector<std::string> gone;
        const std::string text = withoutRecipient(old, recipient_, gone);
        if (in.bad() || text.empty() || gone.empty()) {
            return fail(message.leaf, in.bad() || text.empty()
                                          ? "has a recipient file that cannot be rewritten"
                                          : "has no such recipient");
        }
        const bool last = message.recipients == gone.size();
        Email::QueuedMessage queued = context_.queue.message(message.leaf);
        if (const Email::Trouble trouble =
                last ? queued.remove(nullptr) : queued.replaceList(text)) {
            return fail(message.leaf, std::string("cannot be changed: ") + std::strerror(*trouble));
        }
        for (const std::string& address : gone) {
            logChange("removed", message, "to=" + Email::addressField(address));
        }
        return done(message.leaf, last ? "removed, it had no other recipient" : "lost a recipient");
    }

    // What a crash left of a message, a recipient file without text, can be removed too.
    bool removeAll(const Message& message, const Recipients& recipients) {
        const Email::Trouble trouble = message.hold
                                           ? removeHeld(message)
                                           : context_.queue.message(message.leaf).remove(nullptr);
        if (trouble) {
            return fail(message.leaf, std::string("cannot be removed: ") + std::strerror(*trouble));
        }
        for (const EmailAddr* r = recipients.first(); r != nullptr; r = r->next.get()) {
            logChange("removed", message, "to=" + Email::addressField(r->text()));
        }
        if (recipients.IsEmpty()) {
            logChange("removed", message, "to=-");
        }
        return done(message.leaf, "removed");
    }

    // Under the name that every walker passes over, until nothing is left of it: a crash on the way
    // lets nothing out. The text first, as ever.
    Email::Trouble removeHeld(const Message& message) const {
        const std::string list = context_.queue.directory() + message.hold->listName();
        // With a list of its own again the text is a message in the queue, and not on hold.
        if (::access(context_.queue.recipientPath(message.leaf).c_str(), F_OK) == 0) {
            return EEXIST;
        }
        for (const std::string& path : {context_.queue.textPath(message.leaf), list}) {
            if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
                return errno;
            }
        }
        return std::nullopt;
    }

    bool retry(const Message& message) {
        switch (message.state) {
        case State::OnHold:
            return fail(message.leaf, "is on hold: release it first");
        case State::Unreadable:
            return fail(message.leaf, "has an unreadable recipient file; see retryq check");
        case State::Overdue:
            return done(message.leaf, "is overdue: the next run returns it");
        case State::Due:
            return done(message.leaf, "is due already");
        case State::Waiting:
            break;
        }
        return makeDue(message);
    }

    bool makeDue(const Message& message) {
        const std::string path = context_.queue.recipientPath(message.leaf);
        Email::FdStream in(path.c_str());
        const std::string old{std::istreambuf_iterator<char>(in), {}};
        // So far back that no schedule lets it wait.
        const std::int64_t longest =
            std::max(mailscanGlobals::retry_min_interval, mailscanGlobals::retry_max_wait);
        const DateTime due = DateTime(-1) + -longest;
        const std::string rewritten = withLatestTry(old, due);
        if (in.bad() || rewritten.empty()) {
            return fail(message.leaf, "has a recipient file that cannot be rewritten as it stands");
        }
        if (const Email::Trouble trouble =
                context_.queue.message(message.leaf).replaceList(rewritten)) {
            return fail(message.leaf,
                        std::string("cannot be rewritten: ") + std::strerror(*trouble));
        }
        logChange("made-due", message, "latest-try=" + isoTimeText(message.latestTry));
        return done(message.leaf, "is due now");
    }

    void tell(const std::string& leaf, bool good, const std::string& text) const {
        const char* const command = wordsOf(what_).command;
        if (context_.json) {
            writeJson(context_.screen.out,
                      {{"command", command}, {"message", leaf}, {"done", good}, {"text", text}});
        } else if (good) {
            context_.screen.out << printable(leaf, kShown) << ' ' << text << '\n';
        } else {
            std::cerr << "retryq " << command << ": " << printable(leaf, kShown) << ' ' << text
                      << '\n';
        }
    }

    bool done(const std::string& leaf, const char* what) const {
        tell(leaf, true, what);
        return true;
    }

    bool fail(const std::string& leaf, const std::string& why) const {
        tell(leaf, false, why);
        return false;
    }

    const Context& context_;
    Change what_;
    std::string recipient_; // only this one is removed; empty: the message
};

// The messages to be changed; false when a name stands for none. A whole name is taken as it is:
// what a crash has left of a message, a recipient file alone, is to be named too.
bool find(const Context& context, const char* command, const Changes& wanted,
          std::vector<std::string>& leaves) {
    Filter filter = wanted.filter;
    if (wanted.names.empty() && !wanted.recipient.empty()) {
        filter.recipients.push_back(wanted.recipient);
    }
    if (wanted.names.empty() && filter.empty()) {
        std::cerr << "retryq " << command
                  << ": which messages? Name them, or give --sender, --domain or another filter\n";
        return false;
    }
    std::vector<std::string> names;
    for (const std::string& name : wanted.names) {
        const bool whole = name.find('/') != std::string::npos ||
                           ::access(context.queue.recipientPath(name).c_str(), F_OK) == 0;
        if (whole && filter.empty()) {
            leaves.push_back(name);
        } else {
            names.push_back(name);
        }
    }
    if (names.empty() && !wanted.names.empty()) {
        return true;
    }
    const bool good = select(context, command, names, filter, leaves);
    if (good && leaves.empty()) {
        std::cerr << "retryq " << command << ": no message fits\n";
    }
    return good;
}

} // namespace

int change(const Context& context, Change what, const Changes& wanted) {
    const char* const command = wordsOf(what).command;
    std::vector<std::string> leaves;
    if (!mayChange(context, command)) {
        return kTrouble;
    }
    bool all = find(context, command, wanted, leaves);
    if (leaves.empty()) {
        return kTrouble;
    }
    if (!wanted.yes && ::isatty(STDIN_FILENO) == 0) {
        std::cerr << "retryq " << command << ": nobody to ask: give --yes\n";
        return kTrouble;
    }
    if (!wanted.yes && !confirmed(context, what, leaves.size())) {
        return kTrouble;
    }
    if (what == Change::Return) { // the return mail goes out at once, like a walker's
        DomainRelay::initialise(context.table.records());
    }
    Changer changer(context, what, wanted.recipient);
    for (const std::string& leaf : leaves) {
        all = changer.apply(leaf) && all;
    }
    return all ? kDone : kTrouble;
}

} // namespace Retryq
