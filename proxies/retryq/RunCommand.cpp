#include "email/dispatch/Dispatcher.h"
#include "email/site/DomainRelay.h"
#include "email/site/mailscanGlobals.h"
#include "fwall/processStart.h"
#include "kvorn/segv.h"
#include "retryq/Commands.h"
#include "retryq/Json.h"

#include <syslog.h>

#include <chrono>
#include <csignal>
#include <cstdio>

namespace Retryq {

namespace {

using Seconds = std::chrono::duration<double>;

// What the workers do is the walker's work, and is logged and ended as the walker's is.
void becomeWalker() {
    ::openlog("retryer", LOG_NDELAY, LOG_DAEMON); // connected: a shortage has to be told, too
    install_segv_handler();
    segv_process_name = "retryer-stack";
    ignoreWriteSignals();
}

void tell(const Context& context, const Dispatch::Dispatcher& dispatcher, Seconds took) {
    const Dispatch::Tally& tally = dispatcher.tally();
    const Email::RunCounts counts = dispatcher.counts();
    if (context.json) {
        writeJson(context.screen.out, {{"due", tally.due},
                                       {"tried", tally.tried},
                                       {"left", tally.left},
                                       {"died", tally.died},
                                       {"waiting", tally.waiting},
                                       {"delivered", counts.delivered},
                                       {"deferred", counts.deferred},
                                       {"returned", counts.returned},
                                       {"dropped", counts.dropped},
                                       {"seconds", took.count()}});
        return;
    }
    std::array<char, 32> seconds{};
    std::snprintf(seconds.data(), seconds.size(), "%.1f", took.count());
    context.screen.out << tally.tried << " of " << tally.due << " due messages tried, "
                       << tally.left << " left for dead destinations, " << tally.waiting
                       << " not due; " << seconds.data() << " s\n"
                       << "recipients: " << counts.delivered << " delivered, " << counts.deferred
                       << " deferred, " << counts.returned << " returned, " << counts.dropped
                       << " dropped\n";
    if (tally.died != 0) {
        context.screen.out << tally.died << " were in the hands of workers that died\n";
    }
}

} // namespace

int run(const Context& context, const RunOptions& options) {
    if (options.now) {
        mailscanGlobals::retry_min_interval = 0;
    }
    static_cast<void>(HostList::hostName()); // here, once, and not in each worker
    DomainRelay::initialise(context.table.records());
    becomeWalker();
    const auto begin = std::chrono::steady_clock::now();
    int status = kDone;
    bool cutShort = false;
    {
        Dispatch::Dispatcher dispatcher(
            {.workers = options.workers, .perDestination = options.perDestination});
        status = dispatcher.run();
        cutShort = dispatcher.cutShort();
        tell(context, dispatcher, std::chrono::steady_clock::now() - begin);
    }
    if (cutShort) { // as the walker ends, and whoever waits for it is told so
        context.screen.out.flush();
        ::raise(SIGTERM);
    }
    return status;
}

} // namespace Retryq
