#include "fwall/hexesc.h"
#include "retryq/Commands.h"
#include "retryq/Json.h"
#include "retryq/Table.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <iostream>

namespace Retryq {

namespace {

constexpr std::size_t kShown = 256; // bytes of a name or address in a table
constexpr std::size_t kAddress = 3 * EmailAddr::kMaxText;

Colour colourOf(const Message& message) noexcept {
    switch (message.state) {
    case State::Overdue:
    case State::Unreadable:
        return Colour::Red;
    case State::Due:
        return Colour::Yellow;
    case State::Waiting:
    case State::OnHold:
        break;
    }
    return Colour::Plain;
}

// A message, with its recipients when they are shown.
struct Row {
    Message message;
    std::vector<Recipient> recipients;
};

// Larger is first, but for times, where the earlier one is.
std::int64_t rank(const Message& message, const std::string& sort) {
    if (sort == "size") {
        return -message.size;
    }
    if (sort == "tries") {
        return -message.tries;
    }
    if (sort == "rcpts") {
        return -static_cast<std::int64_t>(message.recipients);
    }
    return sort == "next" ? message.nextTry : message.firstTry;
}

std::vector<Row> collect(const Context& context, const Filter& filter, const ListView& view,
                         bool& opened) {
    std::vector<Row> rows;
    const bool full = view.recipients || context.json;
    opened = context.queue.visit([&](const Message& message, const Recipients& recipients) {
        if (filter.accepts(message, recipients, context.now)) {
            rows.push_back({message, full ? copyOf(recipients) : std::vector<Recipient>()});
        }
    });
    std::ranges::sort(rows, [&](const Row& a, const Row& b) {
        const std::int64_t first = rank(a.message, view.sort);
        const std::int64_t second = rank(b.message, view.sort);
        return first != second ? first < second : a.message.leaf < b.message.leaf;
    });
    rows.resize(std::min(rows.size(), view.limit));
    return rows;
}

// What a terminal has room for: the words of a result, then size and tries, give way to what tells
// the messages apart.
enum class Room { All, NoWords, Little };

Room roomOn(const Screen& screen) noexcept {
    constexpr int kAll = 100;
    constexpr int kNoWords = 72;
    if (screen.width == 0 || screen.width >= kAll) {
        return Room::All;
    }
    return screen.width >= kNoWords ? Room::NoWords : Room::Little;
}

std::string codeText(std::int32_t code) {
    return code == IDS_NO_REASON ? "new" : std::to_string(code);
}

// What is to become of it, where there is no room for saying so, follows from the state.
std::string nextText(const Context& context, const Message& message, Room room) {
    const bool plain = message.state == State::Overdue || message.state == State::Unreadable;
    return room != Room::All && plain && !message.held ? stateName(message.state)
                                                       : nextTryText(message, context.now);
}

// On a narrow screen without its brackets, but for the null sender.
std::string senderText(const Message& message, Room room) {
    std::string text = message.sender.empty() ? "<>" : printable(message.sender, kShown);
    const bool bare = room != Room::All && text.size() > 2 && text.starts_with('<');
    return bare && text.ends_with('>') ? text.substr(1, text.size() - 2) : text;
}

std::vector<std::string> cellsOf(const Context& context, const Message& message) {
    const Room room = roomOn(context.screen);
    const bool readable = message.state != State::Unreadable;
    std::vector<std::string> cells{printable(message.leaf, kShown),
                                   durationText(message.age(context.now)),
                                   readable ? std::to_string(message.recipients) : "-",
                                   senderText(message, room), nextText(context, message, room)};
    const std::string result =
        room == Room::All ? codeAndText(message.code) : codeText(message.code);
    cells.push_back(readable ? result : "-");
    if (room != Room::Little) {
        cells.insert(cells.begin() + 1, sizeText(message.size));
        cells.insert(cells.begin() + 3, readable ? std::to_string(message.tries) : "-");
    }
    return cells;
}

std::vector<Table::Column> columnsOn(const Screen& screen) {
    using Fit = Table::Fit;
    const Room room = roomOn(screen);
    std::vector<Table::Column> columns{{"MESSAGE", 7},
                                       {"AGE", 4, true},
                                       {"RCPTS", 5, true},
                                       {"SENDER", 12, false, Fit::Wrap},
                                       {"NEXT", 8, false, Fit::Wrap},
                                       {"LAST RESULT", 20, false, Fit::Wrap}};
    if (room != Room::All) {
        columns.back() = {"LAST", 4};
    }
    if (room != Room::Little) {
        columns.insert(columns.begin() + 1, {"SIZE", 5, true});
        columns.insert(columns.begin() + 3, {"TRIES", 5, true});
    }
    return columns;
}

void printRecipients(const Context& context, const std::vector<Recipient>& recipients) {
    for (const Recipient& recipient : recipients) {
        context.screen.out << "    " << printable(recipient.address, kAddress) << "  "
                           << codeAndText(recipient.code) << '\n';
    }
}

void printTable(const Context& context, const std::vector<Row>& rows) {
    Table table(context.screen, columnsOn(context.screen));
    for (const Row& row : rows) {
        table.measure(cellsOf(context, row.message));
    }
    table.header();
    for (const Row& row : rows) {
        table.row(cellsOf(context, row.message), colourOf(row.message));
        printRecipients(context, row.recipients);
    }
}

} // namespace

int list(const Context& context, const Filter& filter, const ListView& view) {
    bool opened = false;
    const std::vector<Row> rows = collect(context, filter, view, opened);
    if (!opened) {
        return cannotOpenSpool(context);
    }
    if (context.json) {
        for (const Row& row : rows) {
            writeJson(context.screen.out, toJson(row.message, row.recipients, context.now));
        }
    } else if (!rows.empty()) {
        printTable(context, rows);
    } else if (filter.empty()) {
        context.screen.out << "Mail queue is empty\n";
        // A program that reads this takes no line for the answer.
    } else if (context.screen.width != 0) {
        context.screen.out << "No such message\n";
    }
    return kDone;
}

bool mayChange(const Context& context, const char* command) {
    const std::string& directory = context.queue.directory();
    if (::faccessat(AT_FDCWD, directory.c_str(), W_OK | X_OK, AT_EACCESS) == 0 || errno != EACCES) {
        return true;
    }
    std::cerr << "retryq " << command << ": no right to change " << directory
              << ": be root, or of its group\n";
    return false;
}

int cannotOpenSpool(const Context& context) {
    std::cerr << "retryq: cannot open " << context.queue.directory() << ": " << std::strerror(errno)
              << (errno == EACCES ? ": be root, or of its group" : "") << '\n';
    return kTrouble;
}

} // namespace Retryq
