#include "email/dispatch/Dispatcher.h"
#include "email/site/mailscanGlobals.h"
#include "retryq/Commands.h"
#include "retryq/RunProgress.h"
#include "retryq/RunState.h"
#include "retryq/WalkerProcess.h"

namespace Retryq {

int run(const Context& context, const RunOptions& options) {
    if (!mayChange(context, "run")) {
        return kTrouble;
    }
    if (options.now) {
        mailscanGlobals::retry_min_interval = 0;
    }
    becomeWalker(context);
    int status = kDone;
    bool cutShort = false;
    {
        Dispatch::Dispatcher dispatcher(
            {.workers = options.workers, .perDestination = options.perDestination});
        RunProgress progress(context.screen, context.json, countMessages(context.queue.directory()),
                             std::chrono::seconds(options.progress));
        RunState state;
        dispatcher.setWatcher([&](const Dispatch::Dispatcher& running) {
            progress.show(running);
            state.publish(running);
        });
        status = dispatcher.run();
        cutShort = dispatcher.cutShort();
        progress.end(dispatcher);
    }
    endWalk(context, cutShort);
    return status;
}

} // namespace Retryq
