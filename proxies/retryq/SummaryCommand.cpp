#include "retryq/Commands.h"
#include "retryq/Json.h"

#include <algorithm>
#include <cctype>
#include <iterator>
#include <unordered_map>

namespace Retryq {

namespace {

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

struct Totals {
    std::uint64_t messages = 0;
    std::uint64_t bytes = 0;
    Row all;
    std::unordered_map<std::string, Row> domains;

    void add(const Message& message, const Recipients& recipients, std::time_t now) {
        ++messages;
        bytes += static_cast<std::uint64_t>(std::max<std::int64_t>(message.size, 0));
        for (const EmailAddr* r = recipients.first(); r != nullptr; r = r->next.get()) {
            domains[domainOf(*r)].add(message.age(now));
            all.add(message.age(now));
        }
    }
};

using Entry = std::pair<std::string, Row>;

std::vector<Entry> oldestFirst(const std::unordered_map<std::string, Row>& domains) {
    std::vector<Entry> rows(domains.begin(), domains.end());
    std::ranges::sort(rows, [](const Entry& a, const Entry& b) {
        return a.second.oldest != b.second.oldest ? a.second.oldest > b.second.oldest
                                                  : a.first < b.first;
    });
    return rows;
}

void printRow(Table& table, const std::string& name, const Row& row, Colour colour) {
    std::vector<std::string> cells{name, durationText(row.oldest), std::to_string(row.total)};
    std::ranges::transform(row.count, std::back_inserter(cells), [](std::uint64_t n) {
        return n == 0 ? std::string("-") : std::to_string(n);
    });
    table.row(cells, colour);
}

void printTable(const Context& context, const Totals& totals) {
    std::vector<Table::Column> columns{
        {"RECIPIENT DOMAIN", 24, false, true}, {"OLDEST", 6, true}, {"RCPTS", 6, true}};
    for (const Bucket& bucket : kBuckets) {
        columns.push_back({bucket.title, 5, true});
    }
    Table table(context.screen, std::move(columns));
    table.header();
    for (const auto& [domain, row] : oldestFirst(totals.domains)) {
        printRow(table, domain, row, Colour::Plain);
    }
    printRow(table, "TOTAL", totals.all, Colour::Bold);
    context.screen.out << totals.messages << " messages, "
                       << sizeText(static_cast<std::int64_t>(totals.bytes)) << " bytes, "
                       << totals.domains.size() << " domains\n";
}

Json rowJson(const Row& row) {
    Json ages = Json::object();
    for (std::size_t i = 0; i < kBuckets.size(); ++i) {
        std::string title = kBuckets[i].title;
        std::ranges::transform(title, title.begin(),
                               [](char c) { return static_cast<char>(std::tolower(c)); });
        ages[title] = row.count[i];
    }
    return {{"oldest", row.oldest}, {"recipients", row.total}, {"ages", std::move(ages)}};
}

void writeAllJson(const Context& context, const Totals& totals) {
    for (const auto& [domain, row] : oldestFirst(totals.domains)) {
        Json object{{"domain", domain}};
        object.update(rowJson(row));
        writeJson(context.screen.out, object);
    }
    Json object{{"total", true}, {"messages", totals.messages}, {"bytes", totals.bytes}};
    object.update(rowJson(totals.all));
    writeJson(context.screen.out, object);
}

} // namespace

int summary(const Context& context) {
    Totals totals;
    if (!context.queue.visit([&](const Message& message, const Recipients& recipients) {
            totals.add(message, recipients, context.now);
        })) {
        return cannotOpenSpool(context);
    }
    if (context.json) {
        writeAllJson(context, totals);
    } else {
        printTable(context, totals);
    }
    return kDone;
}

} // namespace Retryq
