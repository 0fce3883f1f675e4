// The work of one worker process: it tries the messages that its dispatcher names, one at a time,
// exactly as a walker tries what it finds, and says what each comes to.
#pragma once

#include "email/dispatch/WorkerChannel.h"
#include "email/engine/ListSender.h"

namespace Dispatch {

// What a worker is told when it is made.
struct Task {
    Tells tells = Tells::Steps;
    ListSender::Wanted wanted; // only these recipients of each message; null: all
};

// Until the dispatcher closes the channel or is gone; a message in hand is finished first. Also
// until a trouble that would meet the next message as well. Returns the process's exit status.
int work(const WorkerChannel& channel, const Task& task);

} // namespace Dispatch
