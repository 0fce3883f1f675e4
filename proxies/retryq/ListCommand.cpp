#include "fwall/hexesc.h"
#include "retryq/Commands.h"
#include "retryq/Json.h"

#include <strings.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <iostream>

namespace Retryq {

namespace {

constexpr std::size_t kShown = 256; // bytes of a name or address in a table

bool anyRecipient(const Recipients& recipients, auto&& test) {
    for (const EmailAddr* r = recipients.first(); r != nullptr; r = r->next.get()) {
        if (test(*r)) {
            return true;
        }
    }
    return false;
}

bool hasDomain(const Recipients& recipients, const std::string& domain) {
    return anyRecipient(recipients, [&](const EmailAddr& r) {
        return ::strcasecmp(domainOf(r).c_str(), domain.c_str()) == 0;
    });
}

Colour colourOf(const Message& message) noexcept {
    switch (message.state) {
    case State::Overdue:
    case State::Unreadable:
        return Colour::Red;
    case State::Due:
        return Colour::Yellow;
    case State::Waiting:
        break;
    }
    return Colour::Plain;
}

std::vector<Message> collect(const Context& context, const Filter& filter, bool& opened) {
    std::vector<Message> messages;
    opened = context.queue.visit([&](const Message& message, const Recipients& recipients) {
        if (filter.accepts(message, recipients, context.now)) {
            messages.push_back(message);
        }
    });
    std::ranges::sort(messages, [](const Message& a, const Message& b) {
        return a.firstTry != b.firstTry ? a.firstTry < b.firstTry : a.leaf < b.leaf;
    });
    return messages;
}

void printTable(const Context& context, const std::vector<Message>& messages) {
    std::size_t leaf = std::strlen("MESSAGE");
    for (const Message& message : messages) {
        leaf = std::max(leaf, message.leaf.size());
    }
    Table table(context.screen, {{"MESSAGE", static_cast<int>(leaf)},
                                 {"SIZE", 5, true},
                                 {"AGE", 4, true},
                                 {"TRIES", 5, true},
                                 {"RCPTS", 5, true},
                                 {"SENDER", 16, false, true},
                                 {"NEXT", 14, false, true},
                                 {"LAST RESULT", 16, false, true}});
    table.header();
    for (const Message& message : messages) {
        const bool readable = message.state != State::Unreadable;
        const std::array cells{
            printable(message.leaf, kShown),
            sizeText(message.size),
            durationText(message.age(context.now)),
            readable ? std::to_string(message.tries) : "-",
            readable ? std::to_string(message.recipients) : "-",
            message.sender.empty() ? "<>" : printable(message.sender, kShown),
            nextTryText(message, context.now),
            readable ? codeAndText(message.code) : "-",
        };
        table.row(cells, colourOf(message));
    }
}

} // namespace

bool Filter::accepts(const Message& message, const Recipients& recipients, std::time_t now) const {
    const std::int64_t age = message.age(now);
    return age >= olderThan && age <= youngerThan &&
           (state.empty() || state == (message.held ? "held" : stateName(message.state))) &&
           (sender.empty() || ::strcasestr(message.sender.c_str(), sender.c_str()) != nullptr) &&
           (!code || anyRecipient(recipients, [&](const auto& r) { return r.reason == *code; })) &&
           (domain.empty() || hasDomain(recipients, domain));
}

int list(const Context& context, const Filter& filter) {
    bool opened = false;
    const std::vector<Message> messages = collect(context, filter, opened);
    if (!opened) {
        return cannotOpenSpool(context);
    }
    if (context.json) {
        for (const Message& message : messages) {
            writeJson(context.screen.out, toJson(message, context.now));
        }
    } else if (!messages.empty()) {
        printTable(context, messages);
    } else if (context.screen.width != 0) {
        context.screen.out << "No such message in " << context.queue.directory() << '\n';
    }
    return kDone;
}

int cannotOpenSpool(const Context& context) {
    std::cerr << "retryq: cannot open " << context.queue.directory() << ": " << std::strerror(errno)
              << '\n';
    return kTrouble;
}

} // namespace Retryq
