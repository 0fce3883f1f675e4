#include "email/engine/RetrySchedule.h"
#include "email/file/FdStream.h"
#include "email/site/mailscanGlobals.h"
#include "email/spool/MessageLock.h"
#include "email/spool/QueuedMessage.h"
#include "email/telling/DeliveryLog.h"
#include "fwall/hexesc.h"
#include "retryq/Commands.h"
#include "retryq/DueNow.h"

#include <pwd.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>
#include <iterator>

namespace Retryq {

namespace {

using Email::MessageLock;

constexpr std::size_t kShown = 256;

// The person behind the command, also behind sudo; whoever calls can claim that, so that the line
// has the real user's number as well.
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

// Puts the question; true for yes.
bool confirmed(const Context& context, Change what, std::size_t messages) {
    const std::string count =
        messages == 1 ? "this message" : std::to_string(messages) + " messages";
    context.screen.out << (what == Change::Remove ? "Delete " : "Make due now: ") << count
                       << (what == Change::Remove ? " for good" : "") << "? [y/N] " << std::flush;
    std::string answer;
    std::getline(std::cin, answer);
    return answer == "y" || answer == "Y" || answer == "yes";
}

// Works on the messages of one command, each under its lock.
class Changer {
public:
    Changer(const Context& context, Change what) : context_(context), what_(what) {}

    bool apply(const std::string& leaf) {
        if (leaf.empty() || leaf.find('/') != std::string::npos) {
            return fail(leaf, "is no message's name");
        }
        const std::string file = context_.queue.recipientPath(leaf);
        const MessageLock lock(file);
        if (lock.state() == MessageLock::State::Busy) {
            return fail(leaf, "is being worked on; left alone");
        }
        if (lock.state() == MessageLock::State::NotOpened) {
            return fail(leaf, std::string("cannot be locked: ") + std::strerror(lock.error()));
        }
        Message message;
        Recipients recipients;
        const bool whole = context_.queue.find(leaf, message, recipients);
        if (what_ == Change::Remove) {
            message.leaf = leaf;
            return remove(message, recipients);
        }
        return whole ? retry(message) : fail(leaf, "has no message text");
    }

private:
    // What a crash left of a message, a recipient file without text, can be removed too.
    bool remove(const Message& message, const Recipients& recipients) {
        if (const Email::Trouble trouble = context_.queue.message(message.leaf).remove(nullptr)) {
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

    bool retry(const Message& message) {
        switch (message.state) {
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
        const DateTime due = DateTime(-1) + -std::int64_t{mailscanGlobals::retry_min_interval};
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

    bool done(const std::string& leaf, const char* what) {
        context_.screen.out << printable(leaf, kShown) << ' ' << what << '\n';
        return true;
    }

    static bool fail(const std::string& leaf, const std::string& why) {
        std::cerr << "retryq: " << printable(leaf, kShown) << ' ' << why << '\n';
        return false;
    }

    const Context& context_;
    Change what_;
};

} // namespace

int change(const Context& context, Change what, const std::vector<std::string>& leaves, bool yes) {
    if (!yes && ::isatty(STDIN_FILENO) == 0) {
        std::cerr << "retryq: nobody to ask: give --yes\n";
        return kTrouble;
    }
    if (!yes && !confirmed(context, what, leaves.size())) {
        return kTrouble;
    }
    Changer changer(context, what);
    bool all = true;
    for (const std::string& leaf : leaves) {
        all = changer.apply(leaf) && all;
    }
    return all ? kDone : kTrouble;
}

} // namespace Retryq
