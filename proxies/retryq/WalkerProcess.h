// For commands that deliver: what the workers do is the walker's work, and is logged and ended as
// the walker's is.
#pragma once

#include "retryq/Commands.h"

namespace Retryq {

// Makes this process one that may walk: relays, the log's name, signals, crashes.
void becomeWalker(const Context& context);

// To be called last: ends the process as a walker that was told twice to end, when it was cut
// short; whoever waits for it is told so.
void endWalk(const Context& context, bool cutShort);

} // namespace Retryq
