#include "email/spool/QueuedMessage.h"
#include "fwall/UniqueFd.h"
#include "fwall/hexesc.h"
#include "retryq/Commands.h"
#include "retryq/HeldLocks.h"
#include "retryq/Json.h"
#include "retryq/Processes.h"
#include "retryq/RunState.h"
#include "retryq/Table.h"

#include <dirent.h>

#include <algorithm>
#include <array>
#include <map>
#include <memory>

namespace Retryq {

namespace {

constexpr std::size_t kShown = 256;
constexpr std::string_view kTitle = "retryq:"; // of a worker, before its stage

struct Row {
    Process process;
    std::string leaf; // of the message whose lock it has; empty: none
    std::vector<Recipient> recipients;
    std::optional<Connections::Peer> peer;
    std::string stage;
    std::time_t inHandSince = 0; // it has had the message; 0: not known
};

// What all running dispatchers have told of themselves.
struct Runs {
    std::map<pid_t, RunState::Told> told;

    // The word of the worker's own dispatcher counts, and no other's.
    [[nodiscard]] std::time_t inHandSince(const Process& worker, std::time_t now) const {
        const auto run = told.find(worker.parent);
        if (run == told.end()) {
            return 0;
        }
        const auto found = run->second.inHandSince.find(worker.pid);
        const bool sense = found != run->second.inHandSince.end() && found->second <= now;
        return sense ? std::max<std::time_t>(found->second, 0) : 0;
    }
};

// The messages whose lock somebody holds, with the process that took it.
bool heldMessages(const Context& context, std::map<pid_t, std::vector<std::string>>& held) {
    const UniqueDirectory spool(::opendir(context.queue.directory().c_str()));
    if (!spool) {
        return false;
    }
    const HeldLocks locks = HeldLocks::on(::dirfd(spool.get()));
    while (const dirent* const entry = locks.none() ? nullptr : ::readdir(spool.get())) {
        using Email::QueuedMessage;
        const std::string_view leaf =
            QueuedMessage::messageOf(QueuedMessage::Queue::Deferred, entry->d_name);
        if (!leaf.empty() && locks.holds(entry->d_ino)) {
            held[locks.holder(entry->d_ino)].emplace_back(leaf);
        }
    }
    return true;
}

bool isWorker(const Process& process) {
    return process.title.starts_with(kTitle);
}

// Hands messages out to workers, which are told by their locks.
bool dispatches(const Process& process) {
    const auto command = [&](const char* word) {
        return std::ranges::find(process.words, word) != process.words.end();
    };
    return process.program == "retryq" && !isWorker(process) &&
           (command("run") || command("deliver"));
}

std::string stageOf(const Row& row, bool hidden) {
    if (!row.process.visible) {
        return "process not visible";
    }
    if (row.leaf.empty()) {
        return dispatches(row.process) ? "hands messages out" : "between messages";
    }
    if (row.peer && !row.peer->standing) {
        return "connecting";
    }
    if (row.peer && row.peer->port == Connections::kNamePort) {
        return "looking up";
    }
    if (isWorker(row.process)) {
        return row.process.title.substr(kTitle.size());
    }
    return hidden ? "connections not visible" : row.peer ? "talking" : "no connection";
}

Row describe(const Context& context, const Process& process, const std::string& leaf,
             const Connections& connections, const Runs& runs) {
    Row row{process, leaf, {}, {}, {}};
    row.inHandSince = leaf.empty() ? 0 : runs.inHandSince(process, context.now);
    Message message;
    Recipients recipients;
    if (!leaf.empty() && context.queue.find(leaf, message, recipients)) {
        row.recipients = copyOf(recipients);
    }
    bool hidden = false;
    if (process.visible) {
        row.peer = connections.of(process.pid, hidden);
    }
    row.stage = stageOf(row, hidden);
    return row;
}

// Walkers and dispatchers without a lock of their own.
std::vector<Process> otherWalkers(const std::map<pid_t, std::vector<std::string>>& held,
                                  Runs& runs) {
    std::vector<Process> found;
    for (const pid_t pid : allProcesses()) {
        const Process process = processOf(pid);
        if (held.contains(pid) || !process.visible ||
            (process.program != "retryer" && !dispatches(process))) {
            continue;
        }
        found.push_back(process);
        if (dispatches(process)) {
            runs.told[pid] = RunState::of(pid);
        }
    }
    return found;
}

std::vector<Row> collect(const Context& context,
                         const std::map<pid_t, std::vector<std::string>>& held, Runs& runs) {
    std::vector<Row> rows;
    const std::vector<Process> others = otherWalkers(held, runs);
    // The tables of this network namespace; a process in another one shows no peer.
    const Connections connections(::getpid());
    for (const auto& [pid, leaves] : held) {
        const Process process = processOf(pid);
        for (const std::string& leaf : leaves) {
            rows.push_back(describe(context, process, leaf, connections, runs));
        }
    }
    for (const Process& process : others) {
        rows.push_back(describe(context, process, "", connections, runs));
    }
    return rows;
}

std::string addressText(const std::optional<Connections::Peer>& peer) {
    std::array<char, IPaddress::kTextSize> text{};
    return peer ? (peer->address.format(text.data()), text.data()) : "-";
}

std::string recipientText(const Row& row) {
    if (row.recipients.empty()) {
        return "-";
    }
    const std::size_t others = row.recipients.size() - 1;
    return printable(row.recipients.front().address, kShown) +
           (others == 0 ? "" : " and " + std::to_string(others) + " more");
}

Json toJson(const Row& row) {
    const auto orNull = [](bool known, Json value) { return known ? std::move(value) : Json(); };
    Json recipients = Json::array();
    for (const Recipient& recipient : row.recipients) {
        recipients.push_back(recipient.address);
    }
    return {{"pid", row.process.pid},
            {"parent", orNull(row.process.parent != 0, row.process.parent)},
            {"program", orNull(!row.process.program.empty(), row.process.program)},
            {"user", orNull(!row.process.user.empty(), row.process.user)},
            {"since", orNull(row.process.since != 0, isoTimeText(row.process.since))},
            {"in_hand_since", orNull(row.inHandSince != 0, isoTimeText(row.inHandSince))},
            {"message", orNull(!row.leaf.empty(), row.leaf)},
            {"recipients", std::move(recipients)},
            {"server", orNull(row.peer.has_value(), addressText(row.peer))},
            {"stage", row.stage}};
}

std::vector<std::string> cellsOf(const Context& context, const Row& row) {
    return {std::to_string(row.process.pid),
            row.process.program.empty() ? "-" : printable(row.process.program, kShown),
            row.process.user.empty() ? "-" : printable(row.process.user, kShown),
            row.process.since == 0 ? "-" : durationText(context.now - row.process.since),
            row.inHandSince == 0 ? "-" : durationText(context.now - row.inHandSince),
            row.leaf.empty() ? "-" : printable(row.leaf, kShown),
            recipientText(row),
            addressText(row.peer),
            printable(row.stage, kShown)};
}

void printRows(const Context& context, const std::vector<Row>& rows) {
    using Fit = Table::Fit;
    Table table(context.screen, {{"PID", 5, true},
                                 {"PROGRAM", 7},
                                 {"USER", 4},
                                 {"RUNS", 4, true},
                                 {"HAS", 4, true},
                                 {"MESSAGE", 7, false, Fit::Wrap},
                                 {"RECIPIENT", 9, false, Fit::Wrap},
                                 {"SERVER", 6},
                                 {"STAGE", 8, false, Fit::Wrap}});
    std::vector<std::vector<std::string>> cells;
    cells.reserve(rows.size());
    for (const Row& row : rows) {
        cells.push_back(cellsOf(context, row));
    }
    table.print(cells);
}

// Destinations none of whose servers answered, as each run knows them.
void tellDead(const Context& context, const Runs& runs) {
    for (const auto& [pid, told] : runs.told) {
        for (const auto& [destination, messages] : told.dead) {
            if (context.json) {
                writeJson(
                    context.screen.out,
                    {{"pid", pid}, {"dead_destination", destination}, {"messages", messages}});
            } else {
                context.screen.out << "no server answers: " << printable(destination, kShown)
                                   << ", " << messages << " messages left by run " << pid << '\n';
            }
        }
    }
}

} // namespace

int who(const Context& context) {
    std::map<pid_t, std::vector<std::string>> held;
    if (!heldMessages(context, held)) {
        return cannotOpenSpool(context);
    }
    Runs runs;
    const std::vector<Row> rows = collect(context, held, runs);
    if (context.json) {
        for (const Row& row : rows) {
            writeJson(context.screen.out, toJson(row));
        }
    } else if (rows.empty()) {
        context.screen.out << "Nobody works on the queue\n";
    } else {
        printRows(context, rows);
    }
    tellDead(context, runs);
    return kDone;
}

} // namespace Retryq
