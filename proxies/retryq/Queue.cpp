#include "retryq/Queue.h"

#include "email/base/LowerCase.h"
#include "email/engine/RetrySchedule.h"
#include "email/site/mailscanGlobals.h"
#include "fwall/UniqueFd.h"
#include "fwall/hexesc.h"
#include "retryq/Format.h"
#include "retryq/HeldLocks.h"

#include <dirent.h>
#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

namespace Retryq {

namespace {

using Email::QueuedMessage;
constexpr QueuedMessage::Queue kDeferred = QueuedMessage::Queue::Deferred;

std::string listOf(const std::string& leaf) {
    return std::string(leaf).append(QueuedMessage::listEnding(kDeferred));
}

// A stamp's digits are universal time. `DateTime::Time` reads them as local time, which is off by
// the zone's offset where a host does not keep UTC.
std::time_t universal(const DateTime& time) noexcept {
    std::tm fields = time.normalised;
    return ::timegm(&fields);
}

std::int32_t mostCommonCode(const Recipients& recipients) {
    struct Count {
        std::int32_t code;
        std::uint32_t count;
    };
    std::vector<Count> counts; // few: a message's recipients fail in few ways
    for (const EmailAddr* r = recipients.first(); r != nullptr; r = r->next.get()) {
        const auto at =
            std::ranges::find(counts, static_cast<std::int32_t>(r->reason), &Count::code);
        if (at != counts.end()) {
            ++at->count;
        } else if (counts.size() < 1000) {
            counts.push_back({r->reason, 1});
        }
    }
    const auto most = std::ranges::max_element(counts, {}, &Count::count);
    return most == counts.end() ? IDS_NO_REASON : most->code;
}

std::int32_t waitOf(const Recipients& recipients) {
    return Email::waitAfter(recipients.firstSendTime(), recipients.lastSendTime(),
                            mailscanGlobals::retry_min_interval, mailscanGlobals::retry_max_wait);
}

State stateOf(const Recipients& recipients, const DateTime& now) {
    if (Email::overdue(recipients.firstSendTime(), now, mailscanGlobals::retry_max_interval)) {
        return State::Overdue;
    }
    const bool soon = Email::tooSoon(recipients.lastSendTime(), now, waitOf(recipients));
    return soon ? State::Waiting : State::Due;
}

// One look at the spool: the open directory and what does not change while it lasts.
class Look {
public:
    explicit Look(const Queue& queue, int directory)
        : queue_(queue), directory_(directory), locks_(HeldLocks::on(directory)) {}

    // The message that has this list. Nothing when it is not, or no longer, there.
    bool read(const std::string& leaf, const std::string& list, Message& message,
              Recipients& recipients) const {
        struct stat text {};
        if (::fstatat(directory_, leaf.c_str(), &text, 0) != 0) {
            return false;
        }
        message = {};
        message.leaf = leaf;
        message.size = text.st_size;
        message.held = held(list);
        if (recipients.Read(FileName((queue_.directory() + list).c_str()), true)) {
            describe(recipients, message);
            return true;
        }
        recipients.Reset();
        message.state = State::Unreadable;
        // The best that is known of its age.
        message.firstTry = text.st_mtime;
        return ::faccessat(directory_, list.c_str(), F_OK, 0) == 0;
    }

private:
    bool held(const std::string& list) const {
        struct stat file {};
        return !locks_.none() && ::fstatat(directory_, list.c_str(), &file, 0) == 0 &&
               locks_.holds(file.st_ino);
    }

    void describe(const Recipients& recipients, Message& message) const {
        message.sender = recipients.GetSender();
        message.firstTry = universal(recipients.firstSendTime());
        message.latestTry = universal(recipients.lastSendTime());
        message.nextTry = message.latestTry + waitOf(recipients);
        // The service reckons with the digits for the pause between tries, and with Time for the
        // whole deferral: what is shown follows it in both.
        message.givenUp = recipients.firstSendTime().Time + mailscanGlobals::retry_max_interval;
        message.tries = recipients.tries();
        message.code = mostCommonCode(recipients);
        message.state = stateOf(recipients, now_);
        for (const EmailAddr* r = recipients.first(); r != nullptr; r = r->next.get()) {
            ++message.recipients;
        }
    }

    const Queue& queue_;
    int directory_;
    HeldLocks locks_;
    DateTime now_{-1};
};

void putOnHold(Message& message, std::optional<Email::Hold> hold) {
    message.hold = std::move(hold);
    message.state = message.hold ? State::OnHold : message.state;
}

std::string userName(uid_t user) {
    const passwd* const known = ::getpwuid(user);
    return known == nullptr ? std::to_string(user) : printable(known->pw_name, 32);
}

} // namespace

const char* stateName(State state) noexcept {
    constexpr std::array kNames{"due", "waiting", "overdue", "unreadable", "on-hold"};
    return kNames.at(static_cast<std::size_t>(state));
}

std::string Queue::recipientPath(const std::string& leaf) const {
    return directory_ + listOf(leaf);
}

QueuedMessage Queue::message(const std::string& leaf) const {
    return {kDeferred, FileName(directory_.c_str()), FileName(leaf.c_str())};
}

bool Queue::visit(const Visitor& visitor) const {
    // Without a lock, so that no walker is held up: what it finishes meanwhile is simply not there.
    const UniqueDirectory directory(::opendir(directory_.c_str()));
    if (!directory) {
        return false;
    }
    const Look look(*this, ::dirfd(directory.get()));
    Message message;
    Recipients recipients;
    while (const dirent* entry = ::readdir(directory.get())) {
        const std::string name = entry->d_name;
        std::optional<Email::Hold> hold = Email::Hold::of(name);
        const std::string leaf(hold ? hold->message : QueuedMessage::messageOf(kDeferred, name));
        if (!leaf.empty() && look.read(leaf, name, message, recipients)) {
            putOnHold(message, std::move(hold));
            visitor(message, recipients);
        }
    }
    return true;
}

bool Queue::find(const std::string& leaf, Message& message, Recipients& recipients) const {
    const UniqueDirectory directory(::opendir(directory_.c_str()));
    if (!directory || leaf.find('/') != std::string::npos || leaf.empty()) {
        return false;
    }
    const Look look(*this, ::dirfd(directory.get()));
    // Nearly always; only one on hold costs a walk over the directory.
    if (look.read(leaf, listOf(leaf), message, recipients)) {
        return true;
    }
    while (const dirent* entry = ::readdir(directory.get())) {
        std::optional<Email::Hold> hold = Email::Hold::of(entry->d_name);
        if (hold && hold->message == leaf && look.read(leaf, entry->d_name, message, recipients)) {
            putOnHold(message, std::move(hold));
            return true;
        }
    }
    return false;
}

std::string nextTryText(const Message& message, std::time_t now) {
    if (message.held) {
        return "being tried now";
    }
    switch (message.state) {
    case State::Due:
        return "due";
    case State::Overdue:
        return "overdue: will be returned";
    case State::Unreadable:
        return "unreadable: will be removed";
    case State::OnHold:
        return "on hold by " + userName(message.hold->by) + " for " +
               durationText(now - message.hold->since);
    case State::Waiting:
        break;
    }
    return "in " + durationText(std::max<std::int64_t>(message.nextTry - now, 0));
}

std::string domainOf(const EmailAddr& address) {
    std::array<char, EmailAddr::kDomainSize> domain{};
    if (!address.GetDomain(domain.data()) || domain[0] == '\0') {
        return "-";
    }
    std::ranges::transform(domain, domain.begin(), Email::lowerCase);
    return printable(domain.data(), domain.size());
}

} // namespace Retryq
