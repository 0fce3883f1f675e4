#include "email/dispatch/WorkerPool.h"

#include "email/site/TlsPolicy.h"
#include "email/site/mailscanGlobals.h"
#include "email/smtp/TlsModule.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <string>
#include <thread>
#include <utility>

namespace Dispatch {

namespace {

bool ready(const WorkerState& worker) noexcept {
    return worker.idle() && !worker.retiring;
}

// The first worker is worth some patience; with others at work, the run goes on with those.
pid_t forkPatiently(bool first) {
    constexpr int kRetries = 3;
    constexpr std::chrono::milliseconds kPause{100};
    pid_t pid = ::fork();
    for (int retry = 0; pid < 0 && first && retry < kRetries; ++retry) {
        std::this_thread::sleep_for(kPause);
        pid = ::fork();
    }
    return pid;
}

// What workers share is read once: the system's store of authorities takes each of them longer than
// many conversations, and most of its memory. A trouble is told where a server first offers TLS.
void readAuthorities() {
    if (Email::tlsPolicy().wanted()) {
        std::string trouble;
        static_cast<void>(Email::tlsContext(mailscanGlobals::tlsAuthorities,
                                            mailscanGlobals::tlsCertificate, trouble));
    }
}

} // namespace

WorkerPool::~WorkerPool() {
    for (WorkerState& worker : workers_) {
        worker.channel.end();
    }
    for (const WorkerState& worker : workers_) {
        while (::waitpid(worker.pid, nullptr, 0) < 0 && errno == EINTR) {
        }
    }
}

bool WorkerPool::available() const noexcept {
    return static_cast<int>(workers_.size()) < most_ || std::ranges::any_of(workers_, ready);
}

WorkerState* WorkerPool::find() {
    const auto idle = std::ranges::find_if(workers_, ready);
    if (idle != workers_.end()) {
        return &*idle;
    }
    return static_cast<int>(workers_.size()) < most_ ? start() : nullptr;
}

WorkerState* WorkerPool::start() {
    std::pair<WorkerChannel, WorkerChannel> ends = WorkerChannel::pair();
    WorkerChannel& ours = ends.first;
    readAuthorities();
    const pid_t pid = ours.open() ? forkPatiently(workers_.empty()) : -1;
    if (pid == 0) {
        ours.close();
        become(ends.second);
    }
    if (pid < 0) {
        // What the system refused now is not asked for again in this run.
        most_ = static_cast<int>(workers_.size());
        return nullptr;
    }
    // In front: the one used last is used next, and the others may end.
    WorkerState& worker = workers_.emplace_front();
    worker.pid = pid;
    worker.channel = std::move(ours);
    return &worker;
}

// A worker that kept another's socket open would hide from it that the dispatcher is gone. An
// interrupt from the terminal is for the dispatcher, which ends the run in order. Nothing of what
// the dispatcher has buffered may be written a second time: no exit handlers.
void WorkerPool::become(const WorkerChannel& own) {
    for (WorkerState& worker : workers_) {
        worker.channel.close();
    }
    ::signal(SIGINT, SIG_IGN);
    ::sigprocmask(SIG_SETMASK, &mask_, nullptr);
    ::_exit(work(own, task_));
}

void WorkerPool::releaseIdle(std::int64_t time) {
    for (WorkerState& worker : workers_) {
        if (worker.idle() && worker.since <= time) {
            worker.channel.end();
        }
    }
}

void WorkerPool::release(WorkerState& worker) noexcept {
    worker.retiring = true;
    if (worker.idle()) {
        worker.channel.end();
    }
}

void WorkerPool::reap(const Ended& ended) {
    int status = 0;
    for (pid_t pid = 0; (pid = ::waitpid(-1, &status, WNOHANG)) > 0;) {
        const auto worker = std::ranges::find(workers_, pid, &WorkerState::pid);
        if (worker != workers_.end()) {
            ended(*worker, status);
            workers_.erase(worker);
        }
    }
}

void WorkerPool::signalAll(int signal) const noexcept {
    for (const WorkerState& worker : workers_) {
        ::kill(worker.pid, signal);
    }
}

} // namespace Dispatch
