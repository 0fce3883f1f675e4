// retryq: the administrator's view of the deferred queue.
#include "retryq/CommandLine.h"

#include "email/site/HostList.h"
#include "email/site/mailscanGlobals.h"
#include "email/telling/DeliveryLog.h"
#include "fwall/hexesc.h"
#include "fwall/processStart.h"

#include <ctime>
#include <iostream>

namespace {

using namespace Retryq;

// The mail library asks for this host's name before main(). Commands that only look need none and
// must answer while the name service is sick, so this is constructed before the library's objects.
struct NameWhenAsked {
    NameWhenAsked() noexcept { HostList::nameWhenAsked(); }
};
[[gnu::init_priority(1000)]] const NameWhenAsked nameWhenAsked;

// The mail library ends a program whose rule table has such settings, without a word: so they are
// told, and the table is not loaded.
void tellWhyNot(const RuleTable& table) {
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
}

} // namespace

int main(int argc, char** argv) {
    openStandardDescriptors();
    closeInheritedDescriptors();
    takeSignals();
    std::ios::sync_with_stdio(false);
    const CommandLine line = readCommandLine(argc, argv);
    if (line.action == nullptr) {
        return line.status;
    }
    const RuleTable table(line.service);
    if (!table.stops()) {
        table.load();
    } else if (!line.anyTable) {
        tellWhyNot(table);
        if (line.unusable == kNoTable) { // a run, which somebody waits for
            Email::writeLine(Email::LogLine::Stopped,
                             {.args = {std::to_string(kNoTable), "the rule table"}});
        }
        return line.unusable;
    }
    std::string directory = mailscanGlobals::deferred_mail_path();
    directory += directory.ends_with('/') ? "" : "/";
    const Context context{table, Queue(directory), standardScreen(std::cout), line.json,
                          std::time(nullptr)};
    const int status = line.action(line, context);
    std::cout.flush();
    return std::cout ? status : kTrouble;
}
