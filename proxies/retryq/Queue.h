// The deferred queue as the administrator sees it. Looking takes no lock and changes nothing;
// messages that a walker finishes meanwhile are simply not there any more.
#pragma once

#include "email/spool/Hold.h"
#include "email/spool/QueuedMessage.h"
#include "email/spool/Recipients.h"

#include <cstdint>
#include <ctime>
#include <functional>
#include <optional>
#include <string>

namespace Retryq {

// What the next run will do with a message.
enum class State {
    Due,        // try it
    Waiting,    // leave it alone: it was tried too recently
    Overdue,    // return it to its sender
    Unreadable, // remove it: its recipient file cannot be used
    OnHold,     // nothing, until somebody releases it
};

// "due", "waiting", "overdue", "unreadable", "on-hold"
[[nodiscard]] const char* stateName(State state) noexcept;

struct Message {
    std::string leaf;
    std::string sender;       // as it stands in the recipient file
    std::int64_t size = 0;    // bytes of the text
    std::time_t firstTry = 0; // seconds since the epoch, like all times here
    std::time_t latestTry = 0;
    std::time_t nextTry = 0; // when it becomes due; past when it is due
    std::time_t givenUp = 0; // when it becomes overdue
    std::int32_t tries = 0;
    std::uint32_t recipients = 0; // still to be served
    std::int32_t code = -1;       // the result that most of them had
    State state = State::Due;
    bool held = false;               // somebody works on it now
    std::optional<Email::Hold> hold; // of one that is on hold

    [[nodiscard]] std::int64_t age(std::time_t now) const noexcept { return now - firstTry; }
};

// Told of each message in the system's order. The recipients belong to the caller of the visitor
// and are empty for an unreadable message.
using Visitor = std::function<void(const Message&, const Recipients&)>;

class Queue {
public:
    // `directory` as the setting has it, with its slash.
    explicit Queue(std::string directory) : directory_(std::move(directory)) {}

    // Goes over the spool once. False, with errno, when the directory cannot be opened.
    bool visit(const Visitor& visitor) const;

    // One message, with its recipients, on hold or not. False when there is none of that name.
    bool find(const std::string& leaf, Message& message, Recipients& recipients) const;

    [[nodiscard]] std::string textPath(const std::string& leaf) const { return directory_ + leaf; }
    [[nodiscard]] std::string recipientPath(const std::string& leaf) const;
    [[nodiscard]] Email::QueuedMessage message(const std::string& leaf) const;
    [[nodiscard]] const std::string& directory() const noexcept { return directory_; }

private:
    std::string directory_;
};

// The schedule's words for a message: "due", "in 12m", "overdue: will be returned", "being tried
// now", "unreadable: will be removed", "on hold by root for 3h".
[[nodiscard]] std::string nextTryText(const Message& message, std::time_t now);

// The domain of an address in lower case, made printable; "-" for an address without one.
[[nodiscard]] std::string domainOf(const EmailAddr& address);

} // namespace Retryq
