// retryer: one pass over the deferred mail queue.
#include "email/engine/MailReSender.h"
#include "email/site/DomainRelay.h"
#include "email/site/mailscanGlobals.h"
#include "fwall/config.h"
#include "fwall/processStart.h"
#include "kvorn/segv.h"
#include "libevrep/Reporter.h"
#include "retryer/StopLine.h"
#include "retryer/arguments.h"

#include <cerrno>
#include <chrono>
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
    stopsBecause("the command line is not valid, or asks for help");
    return kUsageStatus;
}

// The settings point into the rule table, which lives until the process ends.
void configure(const Arguments& arguments) {
    static cfgrec* const table = cfg_read(arguments.service);
    if (table == nullptr || cfg_failed(table)) {
        stopsBecause("no rule table, or nothing in it for the service");
        std::exit(kNoRuleTableStatus);
    }
    mailscanGlobals::initialise(table);
    if (arguments.now) {
        mailscanGlobals::retry_min_interval = 0;
    }
    DomainRelay::initialise(table);
}

// Nothing is said of a queue without a message: most runs find none.
void tellEnd(const Email::RunCounts& counts, std::chrono::steady_clock::time_point start) {
    const auto passed = std::chrono::steady_clock::now() - start;
    if (counts.entries > 0) {
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(passed).count();
        tellRunEnd(counts, static_cast<long>(seconds));
    }
}

// True when every entry was offered. An exception is caught and thrown on, for one that nobody
// catches may end the process at once: the message's lock and the room kept for its list would not
// be given back in order.
bool walk(std::unique_ptr<MailReSender> walker) {
    try {
        const auto start = std::chrono::steady_clock::now();
        walker->RetryAll(0);
        tellEnd(walker->counts(), start);
        return walker->stopped() == 0;
    } catch (...) {
        walker.reset();
        throw;
    }
}

} // namespace

int main(int argc, char** argv) {
    // First, so that nothing of the starter's is in the way of what follows.
    closeInheritedDescriptors();
    tellStops();
    openStandardDescriptors();
    takeSignals();
    // A peer that hangs up, or a limit of file sizes, is an error and not the end of the run.
    ignoreWriteSignals();
    const Arguments arguments = parseArgs(argc, argv);
    nameSubSystem("retryer");
    install_segv_handler();
    // The lines of a stack trace have a name of their own, apart from those about mail.
    segv_process_name = "retryer-stack";
    if (!arguments.valid) {
        return printUsage(argv[0]);
    }
    // Before the configuration, which may wait for names of relays: making the walker clears an
    // alarm that the starter left running.
    auto walker = std::make_unique<MailReSender>();
    configure(arguments);
    if (walk(std::move(walker))) {
        return EXIT_SUCCESS;
    }
    stopsBecause(nullptr);
    return kStoppedStatus;
}
