// retryer: one pass over the deferred mail queue.
#include "email/engine/MailReSender.h"
#include "email/site/DomainRelay.h"
#include "email/site/mailscanGlobals.h"
#include "fwall/config.h"
#include "fwall/processStart.h"
#include "kvorn/segv.h"
#include "libevrep/Reporter.h"
#include "retryer/arguments.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string_view>

namespace {

constexpr int kUsageStatus = 1;
constexpr int kStoppedStatus = 1; // this host could not go on; a log line tells why
constexpr int kNoRuleTableStatus = -1;

void nameSubSystem(std::string_view name) {
    const std::size_t length =
        name.copy(Reporter::c_szSubSystemName, sizeof Reporter::c_szSubSystemName - 1);
    Reporter::c_szSubSystemName[length] = '\0';
}

int printUsage(const char* program) {
    std::printf("Usage: %s [ -as <name> ] [ -now ] [ -h | --help]\n",
                program != nullptr ? program : "retryer");
    return kUsageStatus;
}

// The settings point into the rule table, which lives until the process ends.
void configure(const Arguments& arguments) {
    static cfgrec* const table = cfg_read(arguments.service);
    if (table == nullptr || cfg_failed(table)) {
        std::exit(kNoRuleTableStatus);
    }
    mailscanGlobals::initialise(table);
    if (arguments.now) {
        mailscanGlobals::retry_min_interval = 0;
    }
    DomainRelay::initialise(table);
}

// An exception ends the process, but not before the walker has let go of its message. True when
// every entry was offered.
bool walk(std::unique_ptr<MailReSender> walker) {
    try {
        walker->RetryAll(0);
        return walker->stopped() == 0;
    } catch (...) {
        walker.reset();
        throw;
    }
}

} // namespace

int main(int argc, char** argv) {
    closeInheritedDescriptors();
    openStandardDescriptors();
    ignoreWriteSignals();
    const Arguments arguments = parseArgs(argc, argv);
    nameSubSystem("retryer");
    install_segv_handler();
    segv_process_name = "retryer-stack";
    if (!arguments.valid) {
        return printUsage(argv[0]);
    }
    auto walker = std::make_unique<MailReSender>();
    configure(arguments);
    return walk(std::move(walker)) ? EXIT_SUCCESS : kStoppedStatus;
}
