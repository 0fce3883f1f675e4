#include "email/base/LowerCase.h"
#include "fwall/hexesc.h"
#include "retryq/Commands.h"
#include "retryq/Json.h"
#include "retryq/Table.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <unordered_map>

namespace Retryq {

namespace {

constexpr std::size_t kShown = 256; // bytes of a name in the table

struct Bucket {
    const char* title;
    std::int64_t below; // seconds of age
};
constexpr std::array kBuckets{
    Bucket{"<1H", 3600},
    Bucket{"<4H", 14400},
    Bucket{"<12H", 43200},
    Bucket{"<1D", 86400},
    Bucket{"<2D", 172800},
    Bucket{"<4D", 345600},
    Bucket{"OLDER", std::numeric_limits<std::int64_t>::max()},
};

struct Row {
    std::array<std::uint64_t, kBuckets.size()> count{};
    std::uint64_t total = 0;
    std::int64_t oldest = 0; // seconds

    void add(std::int64_t age) {
        const auto bucket =
            std::ranges::find_if(kBuckets, [age](const Bucket& b) { return age < b.below; });
        ++count[static_cast<std::size_t>(
            std::min<std::ptrdiff_t>(bucket - kBuckets.begin(), std::ssize(kBuckets) - 1))];
        ++total;
        oldest = std::max(oldest, age);
    }
};

std::string groupOf(const Message& message, const EmailAddr& recipient, const std::string& by) {
    if (by == "code") {
        return codeAndText(recipient.reason);
    }
    if (by == "sender") {
        return message.sender.empty() ? "<>" : printable(message.sender, kShown);
    }
    return domainOf(recipient);
}

struct Totals {
    std::uint64_t messages = 0;
    std::uint64_t bytes = 0;
    std::map<State, std::uint64_t> states;
    std::uint64_t held = 0; // of any state: left alone by the next run as well
    Row all;
    std::unordered_map<std::string, Row> groups;

    void add(const Message& message, const Recipients& recipients, const std::string& by,
             std::time_t now) {
        ++messages;
        ++(message.held ? held : states[message.state]);
        bytes += static_cast<std::uint64_t>(std::max<std::int64_t>(message.size, 0));
        for (const EmailAddr* r = recipients.first(); r != nullptr; r = r->next.get()) {
            groups[groupOf(message, *r, by)].add(message.age(now));
            all.add(message.age(now));
        }
    }
};

using Entry = std::pair<std::string, Row>;

// The largest first; equal ones by name.
std::vector<Entry> sorted(const Totals& totals, const SummaryView& view) {
    std::vector<Entry> rows(totals.groups.begin(), totals.groups.end());
    const auto weight = [&](const Row& row) {
        return view.sort == "count" ? static_cast<std::int64_t>(row.total) : row.oldest;
    };
    std::ranges::sort(rows, [&](const Entry& a, const Entry& b) {
        return weight(a.second) != weight(b.second) ? weight(a.second) > weight(b.second)
                                                    : a.first < b.first;
    });
    rows.resize(std::min(rows.size(), view.top));
    return rows;
}

// A narrow terminal has no room for the ages.
bool showsAges(const Screen& screen) noexcept {
    constexpr int kNarrow = 72;
    return screen.width == 0 || screen.width >= kNarrow;
}

std::vector<std::string> cellsOf(const Context& context, const std::string& name, const Row& row) {
    std::vector<std::string> cells{name, durationText(row.oldest), std::to_string(row.total)};
    if (!showsAges(context.screen)) {
        return cells;
    }
    std::ranges::transform(row.count, std::back_inserter(cells), [](std::uint64_t n) {
        return n == 0 ? std::string("-") : std::to_string(n);
    });
    return cells;
}

std::string titleOf(const std::string& by) {
    return by == "code" ? "RESULT" : by == "sender" ? "SENDER" : "RECIPIENT DOMAIN";
}

// What a run that began now would do.
void printNextRun(const Context& context, const Totals& totals) {
    const auto of = [&](State state) {
        const auto found = totals.states.find(state);
        return found == totals.states.end() ? 0 : found->second;
    };
    const auto words = [](std::uint64_t messages, const char* what) {
        return messages == 0 ? "" : ", " + std::to_string(messages) + what;
    };
    const std::string text = "The next run: " + std::to_string(of(State::Due)) + " tried" +
                             words(of(State::Overdue), " returned") +
                             words(of(State::Unreadable), " removed as unreadable") +
                             words(of(State::Waiting), " not due") +
                             words(of(State::OnHold), " on hold") +
                             words(totals.held, " being tried now");
    context.screen.out << wrapped(text, context.screen.width, 2) << '\n';
}

void printTable(const Context& context, const Totals& totals, const SummaryView& view) {
    std::vector<Table::Column> columns{
        {titleOf(view.by), 8, false, Table::Fit::Wrap}, {"OLDEST", 6, true}, {"RCPTS", 5, true}};
    for (const Bucket& bucket : kBuckets) {
        if (!showsAges(context.screen)) {
            break;
        }
        columns.push_back({bucket.title, 3, true});
    }
    Table table(context.screen, std::move(columns));
    std::vector<std::vector<std::string>> rows;
    for (const auto& [name, row] : sorted(totals, view)) {
        rows.push_back(cellsOf(context, name, row));
    }
    const std::vector<std::string> last = cellsOf(context, "TOTAL", totals.all);
    // The last row has the largest numbers, and the columns are laid out with the first.
    table.measure(last);
    table.print(rows);
    table.row(last, Colour::Bold);
    context.screen.out << totals.messages << " messages, "
                       << sizeText(static_cast<std::int64_t>(totals.bytes)) << " bytes, "
                       << totals.groups.size() << ' ' << view.by
                       << (totals.groups.size() == 1 ? "" : "s") << '\n';
    printNextRun(context, totals);
}

Json rowJson(const Row& row) {
    Json ages = Json::object();
    for (std::size_t i = 0; i < kBuckets.size(); ++i) {
        ages[Email::inLowerCase(kBuckets[i].title)] = row.count[i];
    }
    return {{"oldest", row.oldest}, {"recipients", row.total}, {"ages", std::move(ages)}};
}

void writeAllJson(const Context& context, const Totals& totals, const SummaryView& view) {
    for (const auto& [name, row] : sorted(totals, view)) {
        Json object{{view.by, name}};
        object.update(rowJson(row));
        writeJson(context.screen.out, object);
    }
    Json object{{"total", true}, {"messages", totals.messages}, {"bytes", totals.bytes}};
    object["states"] = Json{{"held", totals.held}};
    for (const auto& [state, messages] : totals.states) {
        object["states"][stateName(state)] = messages;
    }
    object.update(rowJson(totals.all));
    writeJson(context.screen.out, object);
}

} // namespace

int summary(const Context& context, const SummaryView& view) {
    Totals totals;
    if (!context.queue.visit([&](const Message& message, const Recipients& recipients) {
            totals.add(message, recipients, view.by, context.now);
        })) {
        return cannotOpenSpool(context);
    }
    if (context.json) {
        writeAllJson(context, totals, view);
    } else {
        printTable(context, totals, view);
    }
    return kDone;
}

} // namespace Retryq
