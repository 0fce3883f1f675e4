// The worker processes of a dispatcher: forked as they are needed from the process that has read
// the rule table, ended when they are idle, reaped and replaced when they die.
#pragma once

#include "email/dispatch/Destinations.h"
#include "email/dispatch/Worker.h"
#include "email/dispatch/WorkerChannel.h"

#include <sys/types.h>

#include <csignal>
#include <cstdint>
#include <functional>
#include <list>
#include <string>
#include <utility>

namespace Dispatch {

// A worker as its dispatcher sees it.
struct WorkerState {
    pid_t pid = 0;
    WorkerChannel channel;
    std::string leaf;           // of the message in hand; empty: idle
    Destinations::Talk talk;    // its conversation
    std::int64_t since = 0;     // it has had its message, or been idle
    std::uint64_t deadSeen = 0; // servers that it was told to leave alone
    Email::RunCounts counts;    // of what it is done with
    bool retiring = false;      // takes no further message

    [[nodiscard]] bool idle() const noexcept { return leaf.empty() && channel.open(); }
};

class WorkerPool {
public:
    // At most that many at once; `mask` is the signal mask that a worker runs with.
    WorkerPool(int most, const sigset_t& mask, Task task)
        : most_(most), mask_(mask), task_(std::move(task)) {}
    ~WorkerPool();
    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;

    // True when find() would have one, or would ask the system for one.
    [[nodiscard]] bool available() const noexcept;

    // An idle worker, a new one where there is none. Null when all are at work and no more are
    // allowed; also when the system has none to give (errno), and then as many as there are now
    // are allowed from now on.
    WorkerState* find();

    // Lets those go that have been idle since `time` or longer; they end by themselves.
    void releaseIdle(std::int64_t time);
    void release(WorkerState& worker) noexcept;

    // Calls for each that has ended, with the status of wait(2), and forgets it. Its last reports
    // can still be received.
    using Ended = std::function<void(WorkerState&, int status)>;
    void reap(const Ended& ended);

    // Sends the signal to all.
    void signalAll(int signal) const noexcept;

    [[nodiscard]] std::list<WorkerState>& workers() noexcept { return workers_; }
    [[nodiscard]] const std::list<WorkerState>& workers() const noexcept { return workers_; }
    [[nodiscard]] int allowed() const noexcept { return most_; }
    [[nodiscard]] const Task& task() const noexcept { return task_; }

private:
    WorkerState* start();
    [[noreturn]] void become(const WorkerChannel& own);

    int most_;
    sigset_t mask_;
    Task task_;
    std::list<WorkerState> workers_;
};

} // namespace Dispatch
