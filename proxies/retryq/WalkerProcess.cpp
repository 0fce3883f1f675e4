#include "retryq/WalkerProcess.h"

#include "email/site/DomainRelay.h"
#include "email/site/HostList.h"
#include "fwall/processStart.h"
#include "kvorn/segv.h"

#include <syslog.h>

#include <csignal>

namespace Retryq {

void becomeWalker(const Context& context) {
    static_cast<void>(HostList::hostName()); // here, once, and not in each worker
    DomainRelay::initialise(context.table.records());
    ::openlog("retryer", LOG_NDELAY, LOG_DAEMON); // connected: a shortage has to be told, too
    install_segv_handler();
    segv_process_name = "retryer-stack";
    ignoreWriteSignals();
}

void endWalk(const Context& context, bool cutShort) {
    if (cutShort) {
        context.screen.out.flush();
        ::raise(SIGTERM);
    }
}

} // namespace Retryq
