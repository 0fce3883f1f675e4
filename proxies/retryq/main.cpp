// retryq: the keeper's view of the deferred queue.
#include "retryq/CommandLine.h"

#include "email/site/mailscanGlobals.h"
#include "fwall/hexesc.h"

#include <ctime>
#include <iostream>

namespace {

using namespace Retryq;

int run(const CommandLine& line, const Context& context) {
    const std::string word = line.words.empty() ? "" : line.words.front();
    if (line.command == "list") {
        return list(context, line.filter, line.view);
    }
    if (line.command == "show") {
        return show(context, word, line.body);
    }
    if (line.command == "summary") {
        return summary(context, line.grouping);
    }
    if (line.command == "route") {
        return route(context, word);
    }
    if (line.command == "report") {
        return report(context, line.history);
    }
    if (line.command == "story") {
        return story(context, line.history, word);
    }
    if (line.command == "metrics") {
        return metrics(context, word);
    }
    return change(context, line.command == "remove" ? Change::Remove : Change::Retry, line.words,
                  line.yes);
}

// Settings that would end retryer are told, not met: the mail library ends a program that has them
// without a word.
int tellWhyNot(const RuleTable& table) {
    for (const Finding& fault : table.faults()) {
        if (fault.weight == Finding::Weight::Stop) {
            std::cerr << "retryq: "
                      << (fault.line == 0
                              ? ""
                              : table.path() + " line " + std::to_string(fault.line) + ": ")
                      << fault.text << '\n';
        }
    }
    std::cerr << "retryq: retryq check tells more\n";
    return kStop;
}

} // namespace

int main(int argc, char** argv) {
    std::ios::sync_with_stdio(false);
    const CommandLine line = readCommandLine(argc, argv);
    if (line.command.empty()) {
        return line.status;
    }
    const RuleTable table(line.service);
    if (!table.stops()) {
        table.load();
    } else if (line.command != "check") {
        return tellWhyNot(table);
    }
    std::string directory = mailscanGlobals::deferred_mail_path();
    directory += directory.ends_with('/') ? "" : "/";
    const Context context{table, Queue(directory), standardScreen(std::cout), line.json,
                          std::time(nullptr)};
    const int status = line.command == "check" ? check(context) : run(line, context);
    std::cout.flush();
    return std::cout ? status : kTrouble;
}
