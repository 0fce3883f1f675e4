#include "fwall/hexesc.h"
#include "retryq/Commands.h"
#include "retryq/History.h"
#include "retryq/Json.h"
#include "retryq/Table.h"
#include "retryq/history/Chart.h"
#include "retryq/history/LogSource.h"
#include "retryq/history/Tally.h"

#include "email/file/FileReplacement.h"

#include <cerrno>
#include <cstring>
#include <iostream>

namespace Retryq {

namespace {

constexpr std::size_t kShown = 512;
constexpr mode_t kFileMode = 0644;

std::string count(std::uint64_t number) {
    return number == 0 ? "-" : std::to_string(number);
}

void title(const Context& context, const char* text) {
    context.screen.out << '\n' << context.screen.paint(text, Colour::Bold) << '\n';
}

void printHours(const Context& context, const Tally& tally) {
    if (tally.hours().empty()) {
        return;
    }
    title(context, "BY HOUR    # delivered   = deferred   ! returned or dropped");
    const std::vector<HourBar> bars = hourBars(tally.hours());
    const int width = context.screen.width != 0 ? context.screen.width : 80;
    for (const HourBar& bar : bars) {
        context.screen.out << hourText(bar.hour) << "  " << barText(bar, bars, width - 34) << '\n';
    }
}

void printDomains(const Context& context, const Tally& tally, std::size_t top) {
    title(context, "BY DOMAIN, most trouble first");
    Table table(context.screen, {{"DOMAIN", 12, false, Table::Fit::Wrap},
                                 {"DELIVERED", 9, true},
                                 {"DEFERRED", 8, true},
                                 {"RETURNED", 8, true},
                                 {"DROPPED", 7, true}});
    std::vector<std::vector<std::string>> rows;
    for (const auto& [domain, outcome] : tally.domains(top)) {
        rows.push_back({printable(domain, kShown), count(outcome.delivered),
                        count(outcome.deferred), count(outcome.returned), count(outcome.dropped)});
    }
    table.print(rows);
}

void printReasons(const Context& context, const Tally& tally, std::size_t top) {
    title(context, "WHY NOT DELIVERED");
    Table table(context.screen,
                {{"RCPTS", 7, true}, {"SERVER", 15}, {"WORDS", 20, false, Table::Fit::Wrap}});
    std::vector<std::vector<std::string>> rows;
    for (const auto& [key, reason] : tally.reasons(top)) {
        rows.push_back({count(reason.recipients),
                        reason.server.empty() ? "-" : printable(reason.server, kShown),
                        printable(reason.words, kShown)});
    }
    table.print(rows);
}

void printServers(const Context& context, const Tally& tally, std::size_t top) {
    title(context, "SLOWEST SERVERS");
    Table table(context.screen,
                {{"SERVER", 15}, {"TOTAL", 6, true}, {"LONGEST", 7, true}, {"LINES", 7, true}});
    std::vector<std::vector<std::string>> rows;
    for (const auto& [server, time] : tally.servers(top)) {
        rows.push_back({printable(server, kShown), durationText(time.seconds),
                        durationText(time.longest), count(time.lines)});
    }
    table.print(rows);
}

void printReturns(const Context& context, const Tally& tally, std::size_t top) {
    if (tally.total().returned == 0) {
        return;
    }
    title(context, "LARGEST RETURNS");
    Table table(context.screen,
                {{"RCPTS", 7, true}, {"MESSAGE", 16}, {"SENDER", 12, false, Table::Fit::Wrap}});
    std::vector<std::vector<std::string>> rows;
    for (const auto& [message, returned] : tally.returns(top)) {
        rows.push_back({count(returned.recipients), printable(message, kShown),
                        printable(returned.sender, kShown)});
    }
    table.print(rows);
}

void printAll(const Context& context, const Tally& tally, std::size_t top) {
    const Outcomes& total = tally.total();
    context.screen.out << "Recipients: " << total.delivered << " delivered, " << total.deferred
                       << " deferred, " << total.returned << " returned, " << total.dropped
                       << " dropped\n";
    if (tally.lines() == 0) {
        context.screen.out << "In this time the log has no line of retryer\n";
    }
    if (total.delivered + total.failed() == 0) {
        return;
    }
    printHours(context, tally);
    printDomains(context, tally, top);
    if (total.failed() != 0) {
        printReasons(context, tally, top);
    }
    printServers(context, tally, top);
    printReturns(context, tally, top);
}

Json outcomeJson(const Outcomes& outcome) {
    return {{"delivered", outcome.delivered},
            {"deferred", outcome.deferred},
            {"returned", outcome.returned},
            {"dropped", outcome.dropped}};
}

void writeAllJson(const Context& context, const Tally& tally, std::size_t top) {
    const auto write = [&](Json object, const Json& figures) {
        object.update(figures);
        writeJson(context.screen.out, object);
    };
    for (const auto& [hour, outcome] : tally.hours()) {
        write({{"hour", isoTimeText(hour)}}, outcomeJson(outcome));
    }
    for (const auto& [domain, outcome] : tally.domains(top)) {
        write({{"domain", domain}}, outcomeJson(outcome));
    }
    for (const auto& [key, reason] : tally.reasons(top)) {
        write({{"reason", reason.words}},
              {{"recipients", reason.recipients}, {"server", reason.server}});
    }
    for (const auto& [server, time] : tally.servers(top)) {
        write({{"server", server}},
              {{"seconds", time.seconds}, {"longest", time.longest}, {"lines", time.lines}});
    }
    for (const auto& [message, returned] : tally.returns(top)) {
        write({{"message", message}},
              {{"returned", returned.recipients}, {"sender", returned.sender}});
    }
    write({{"total", true}, {"lines", tally.lines()}}, outcomeJson(tally.total()));
}

bool writePicture(const std::string& file, const Tally& tally) {
    Email::FileReplacement replacement(file, kFileMode, Email::FileReplacement::LeftOver::Remove,
                                       Email::FileReplacement::InPlace::Never);
    if (replacement.open() && replacement.commit(svgChart(hourBars(tally.hours())))) {
        return true;
    }
    std::cerr << "retryq report: cannot write " << file << ": " << std::strerror(errno) << '\n';
    return false;
}

} // namespace

int report(const Context& context, const History& history) {
    Tally tally;
    std::time_t since = 0;
    if (!beginOf("report", history, context.now, since) ||
        !readHistory("report", history, context.now, since,
                     [&](const LogEntry& entry) { tally.add(entry, since); })) {
        return kTrouble;
    }
    if (context.json) {
        writeAllJson(context, tally, history.top);
    } else {
        printAll(context, tally, history.top);
    }
    return history.svg.empty() || writePicture(history.svg, tally) ? kDone : kTrouble;
}

} // namespace Retryq
