#include "email/file/BoundedLineReader.h"
#include "email/file/FdStream.h"
#include "fwall/UniqueFd.h"
#include "fwall/hexesc.h"
#include "retryq/Commands.h"
#include "retryq/Json.h"
#include "retryq/Selection.h"
#include "retryq/Table.h"

#include <fcntl.h>

#include <cerrno>
#include <cstring>
#include <iostream>

namespace Retryq {

namespace {

using Email::BoundedLineReader;
using Kind = BoundedLineReader::Kind;

constexpr std::size_t kLine = 1023;       // bytes of a text line that are shown in one
constexpr std::size_t kShown = 4 * kLine; // enough for each of them escaped
constexpr std::size_t kAddress = 3 * EmailAddr::kMaxText;

// Hands out the header lines of a message text, then, if asked, the rest; bytes as they are.
void readText(const std::string& path, bool body, auto&& line) {
    // Whoever may write to the spool may put a link there to what only root may read.
    const UniqueFd file(
        ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!file.valid()) {
        std::cerr << "retryq show: cannot read " << printable(path, kShown) << ": "
                  << (errno == ELOOP ? "it is a link" : std::strerror(errno)) << '\n';
        return;
    }
    Email::FdStream text(("/proc/self/fd/" + std::to_string(file.get())).c_str());
    BoundedLineReader reader(text, kLine, kLine);
    bool inBody = false;
    for (auto item = reader.next(); item.kind == Kind::Line || item.kind == Kind::Piece;
         item = reader.next()) {
        // The first empty line ends the header, whatever line ends the text came with.
        inBody = inBody || item.text.empty() || item.text == "\r";
        if (inBody && !body) {
            return;
        }
        line(item.text, inBody);
    }
}

std::string whenText(const std::string& label, std::time_t time, const std::string& remark) {
    return label + localTimeText(time) + "  (" + remark + ")\n";
}

void printSchedule(const Context& context, const Message& message) {
    std::ostream& out = context.screen.out;
    const auto ago = [&](std::time_t time) { return durationText(context.now - time) + " ago"; };
    out << whenText("First try    ", message.firstTry, ago(message.firstTry));
    if (message.latestTry > 0) {
        out << whenText("Latest try   ", message.latestTry, ago(message.latestTry));
    }
    out << "Tries        " << message.tries << '\n'
        << whenText("Next try     ", message.nextTry, nextTryText(message, context.now))
        << whenText("Given up     ", message.givenUp,
                    message.state == State::Overdue
                        ? "overdue"
                        : "in " + durationText(message.givenUp - context.now));
}

void printRecipients(const Context& context, const Recipients& recipients) {
    Table table(context.screen, {{"RECIPIENT", 20, false, Table::Fit::Wrap},
                                 {"LAST RESULT", 20, false, Table::Fit::Wrap}});
    std::vector<std::vector<std::string>> rows;
    for (const EmailAddr* r = recipients.first(); r != nullptr; r = r->next.get()) {
        rows.push_back({printable(r->text(), kAddress), codeAndText(r->reason)});
    }
    table.print(rows);
}

void printText(const Context& context, const std::string& leaf, bool body) {
    std::ostream& out = context.screen.out;
    out << context.screen.paint(body ? "TEXT" : "HEADER", Colour::Bold) << '\n';
    readText(context.queue.textPath(leaf), body, [&](std::string_view line, bool) {
        line.remove_suffix(line.ends_with('\r') ? 1 : 0);
        out << printable(line, kShown) << '\n';
    });
}

void printAll(const Context& context, const Message& message, const Recipients& recipients,
              bool body) {
    std::ostream& out = context.screen.out;
    out << "Message      " << printable(message.leaf, kAddress) << '\n'
        << "Size         " << message.size << " bytes\n";
    if (message.state == State::Unreadable) {
        out << "State        " << nextTryText(message, context.now) << '\n';
    } else {
        out << "Sender       "
            << (message.sender.empty() ? "<>" : printable(message.sender, kAddress)) << '\n';
        printSchedule(context, message);
        out << '\n';
        printRecipients(context, recipients);
    }
    out << '\n';
    printText(context, message.leaf, body);
}

void writeAllJson(const Context& context, const Message& message, const Recipients& recipients,
                  bool body) {
    Json object = toJson(message, copyOf(recipients), context.now);
    object["header"] = Json::array();
    readText(context.queue.textPath(message.leaf), body, [&](std::string_view line, bool inBody) {
        object[inBody ? "body" : "header"].push_back(line);
    });
    writeJson(context.screen.out, object);
}

} // namespace

int show(const Context& context, const std::string& name, bool body) {
    Message message;
    Recipients recipients;
    std::vector<std::string> leaves;
    if (!context.queue.find(name, message, recipients) &&
        (!select(context, "show", {name}, {}, leaves) ||
         !context.queue.find(leaves.front(), message, recipients))) {
        return kTrouble;
    }
    if (context.json) {
        writeAllJson(context, message, recipients, body);
    } else {
        printAll(context, message, recipients, body);
    }
    return kDone;
}

} // namespace Retryq
