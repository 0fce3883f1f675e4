#include "email/dispatch/Dispatcher.h"

#include "email/dispatch/WorkerLimit.h"
#include "email/engine/MailReSender.h"
#include "email/site/HostList.h"
#include "email/site/mailscanGlobals.h"
#include "email/telling/DeliveryLog.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>
#include <utility>
#include <vector>

namespace Dispatch {

namespace {

using Email::LogLine;

constexpr int kEntriesATurn = 64;         // so that no worker waits for the reading
constexpr int kTick = 1000;               // milliseconds
constexpr std::int64_t kStopSeconds = 60; // for the messages in hand, after the first signal
constexpr std::int64_t kIdleFor = 5;      // seconds until a worker is let go
constexpr std::chrono::milliseconds kPauseInTrouble{10};

std::int64_t seconds() {
    using namespace std::chrono;
    return duration_cast<std::chrono::seconds>(steady_clock::now().time_since_epoch()).count();
}

sigset_t ownSignals() noexcept {
    sigset_t set;
    ::sigemptyset(&set);
    for (const int signal : {SIGTERM, SIGINT, SIGCHLD}) {
        ::sigaddset(&set, signal);
    }
    return set;
}

sigset_t blockOwnSignals() noexcept {
    const sigset_t set = ownSignals();
    sigset_t before;
    ::sigprocmask(SIG_BLOCK, &set, &before);
    return before;
}

UniqueFd signalDescriptor() noexcept {
    const sigset_t set = ownSignals();
    return UniqueFd(::signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC));
}

int possibleWorkers(int wanted) {
    const WorkerLimit limit = workerLimit(wanted);
    if (!limit.because.empty()) {
        Email::writeLine(
            LogLine::FewerWorkers,
            {.args = {std::to_string(wanted), std::to_string(limit.workers), limit.because}});
    }
    return limit.workers;
}

} // namespace

Dispatcher::Dispatcher(const Options& options)
    : before_(blockOwnSignals()), signals_(signalDescriptor()),
      reader_(mailscanGlobals::deferred_mail_path()),
      destinations_(std::max(options.perDestination, 1), HostList::BlackL.timeout()),
      pool_(possibleWorkers(std::max(options.workers, 1)), before_, options.task) {
    if (options.only) {
        reader_.readOnly(*options.only);
    }
    if (!signals_.valid()) { // then a signal ends the run at once, and the workers after it
        ::sigprocmask(SIG_SETMASK, &before_, nullptr);
    }
}

Dispatcher::~Dispatcher() {
    ::sigprocmask(SIG_SETMASK, &before_, nullptr);
}

int Dispatcher::run() {
    began_ = now_ = seconds();
    while (!finished()) {
        const bool more = readOn();
        handOut();
        // With more to read nothing is waited for, but signals and reports are heard.
        wait(more || finished() ? 0 : kTick);
    }
    for (WorkerState& worker : pool_.workers()) {
        // None has a message now: each ends when its socket is closed.
        pool_.release(worker);
    }
    while (!pool_.workers().empty()) {
        wait(kTick);
    }
    tellEnd();
    return worst_;
}

bool Dispatcher::finished() const noexcept {
    const bool nothingToDo = stopRequests_ > 0 || (allRead_ && window_.empty());
    return nothingToDo && std::ranges::all_of(pool_.workers(), [](const WorkerState& worker) {
               return worker.leaf.empty();
           });
}

// True when there is more to read at once.
bool Dispatcher::readOn() {
    for (int i = 0; i < kEntriesATurn && !allRead_ && !window_.full(); ++i) {
        DueMessage message;
        switch (reader_.next(message)) {
        case DueReader::Found::End:
            allRead_ = true;
            break;
        case DueReader::Found::Waiting:
            ++tally_.waiting;
            break;
        case DueReader::Found::Due:
            takeIn(std::move(message));
            break;
        case DueReader::Found::Nothing:
            break;
        }
    }
    return !allRead_ && !window_.full();
}

// What has other recipients, or is to be returned, never waits for a dead destination: its servers
// are on every worker's blacklist, and the engine goes on to the next at once.
void Dispatcher::takeIn(DueMessage message) {
    ++tally_.due;
    if (!message.otherWork && destinations_.isDead(message.destination, now_)) {
        leave(message.destination, 1);
    } else {
        window_.add(std::move(message));
    }
}

void Dispatcher::leave(const std::string& destination, std::size_t messages) {
    if (messages > 0) {
        left_[destination] += messages;
        tally_.left += messages;
    }
}

// Half of the workers is kept for destinations that are known to answer, however many dead ones
// there are.
bool Dispatcher::mayBegin(const std::string& destination) const {
    const int searching = std::max(pool_.allowed() / 2, 1);
    return destinations_.mayBegin(destination, now_) &&
           (destinations_.searching() < searching || destinations_.wasReached(destination));
}

void Dispatcher::handOut() {
    const auto may = [this](const std::string& destination) { return mayBegin(destination); };
    while (stopRequests_ == 0 && pool_.available()) {
        std::optional<DueMessage> message = window_.take(may);
        if (!message) {
            return;
        }
        WorkerState* const worker = pool_.find();
        if (worker != nullptr) {
            give(*worker, std::move(*message));
            continue;
        }
        Email::writeLine(LogLine::FewerWorkers,
                         {.args = {"more", std::to_string(pool_.allowed()), std::strerror(errno)}});
        // Back into the window: a worker that is free later takes it.
        window_.add(std::move(*message));
        if (pool_.workers().empty()) {
            walkAlone();
        }
    }
}

// A worker that cannot be told is as one that died with the message: that bounds what a system in
// trouble can cost.
void Dispatcher::give(WorkerState& worker, DueMessage message) {
    const Order order{message.leaf,
                      destinations_.deadSince(worker.deadSeen, Order::kMaxDead, now_)};
    worker.leaf = std::move(message.leaf);
    worker.since = now_;
    worker.talk = destinations_.begin(message.destination, now_);
    if (!worker.channel.send(encode(order), WorkerChannel::Wait::No)) {
        worker.retiring = true;
        worker.channel.end();
    }
}

void Dispatcher::tryEach(MailReSender& walker) {
    const auto any = [](const std::string&) { return true; };
    do {
        while (walker.stopped() == 0) {
            const std::optional<DueMessage> message = window_.take(any);
            if (!message) {
                break;
            }
            FileName entry(mailscanGlobals::deferred_mail_path(), message->leaf.c_str());
            walker.tryFile(&entry);
        }
        (void)readOn();
    } while (walker.stopped() == 0 && (!window_.empty() || !allRead_));
}

// Not a single worker can be had: the run is made as a walker makes it.
void Dispatcher::walkAlone() {
    // Nobody reads the descriptor now: a signal ends the run at once, as it ends a walker.
    ::sigprocmask(SIG_SETMASK, &before_, nullptr);
    MailReSender walker;
    walker.tryOnly(pool_.task().wanted);
    if (reader_.onlySome()) {
        tryEach(walker);
    } else {
        walker.RetryAll(0);
    }
    worst_ = walker.stopped() == 0 ? worst_ : 1;
    ended_ += walker.counts();
    blockOwnSignals();
    window_ = DueWindow();
    allRead_ = true;
}

void Dispatcher::wait(int milliseconds) {
    std::vector<pollfd> watched{{signals_.get(), POLLIN, 0}};
    std::vector<WorkerState*> whose{nullptr};
    for (WorkerState& worker : pool_.workers()) {
        if (worker.channel.open()) {
            watched.push_back({worker.channel.fd(), POLLIN, 0});
            whose.push_back(&worker);
        }
    }
    const bool failed = ::poll(watched.data(), watched.size(), milliseconds) < 0;
    if (failed && errno != EINTR) { // no memory, say: the workers are heard all the same
        std::this_thread::sleep_for(kPauseInTrouble);
    }
    const std::int64_t before = std::exchange(now_, seconds());
    for (std::size_t i = 1; i < watched.size(); ++i) {
        if (failed || watched[i].revents != 0) {
            hear(*whose.at(i));
        }
    }
    takeSignals();
    if (before != now_) {
        everySecond();
    }
}

// Also without a signal descriptor: then a worker's end is seen within a second.
void Dispatcher::takeSignals() {
    signalfd_siginfo signal{};
    while (::read(signals_.get(), &signal, sizeof signal) == sizeof signal) {
        if (signal.ssi_signo != SIGCHLD) {
            askToStop();
        }
    }
    if (stopRequests_ == 1 && stopSince_ && now_ - *stopSince_ > kStopSeconds) {
        askToStop();
    }
    pool_.reap([this](WorkerState& worker, int status) { ended(worker, status); });
}

void Dispatcher::askToStop() {
    stopSince_ = stopSince_.value_or(now_);
    if (++stopRequests_ > 1) {
        pool_.signalAll(SIGTERM);
    }
}

void Dispatcher::hear(WorkerState& worker) {
    while (worker.channel.open()) {
        const auto record = worker.channel.receive(WorkerChannel::Wait::No);
        if (!record) {
            worker.retiring = true;
            worker.channel.end();
        } else if (record->empty()) {
            return;
        } else if (const auto report = decodeReport(*record)) {
            take(worker, *report);
        }
    }
}

void Dispatcher::take(WorkerState& worker, const Report& report) {
    if (listener_) {
        listener_(worker, report);
    }
    switch (report.step) {
    case Step::Chose:
        chose(worker, report.text);
        break;
    case Step::Connected:
        destinations_.connected(worker.talk, report.server);
        break;
    case Step::ConnectFailed:
    case Step::NoGreeting:
    case Step::NotSignedIn:
        // The worker has put a server on its blacklist that others talk to.
        if (destinations_.failed(worker.talk, report.server, now_)) {
            pool_.release(worker);
        }
        break;
    case Step::Lost:
        destinations_.lost(worker.talk, report.text);
        break;
    case Step::Done:
        worker.counts = report.counts;
        done(worker);
        if (report.value != 0) { // this host cannot go on; the worker has told why
            stopRequests_ = std::max(stopRequests_, 1);
        }
        break;
    case Step::Outcome:
    case Step::Said:
    case Step::Heard:
        break; // for the listener
    }
}

// The first is the one that the message was handed out for, unless its list has changed since.
void Dispatcher::chose(WorkerState& worker, const std::string& destination) {
    if (worker.talk.searched || worker.talk.destination != destination) {
        endTalk(worker);
        worker.talk = destinations_.begin(destination, now_);
    }
    worker.talk.searched = true;
}

void Dispatcher::endTalk(WorkerState& worker) {
    if (destinations_.end(worker.talk, now_)) {
        leave(worker.talk.destination, window_.drop(worker.talk.destination));
    }
}

void Dispatcher::done(WorkerState& worker) {
    endTalk(worker);
    ++tally_.tried;
    worker.leaf.clear();
    worker.since = now_;
    if (worker.retiring) {
        pool_.release(worker);
    }
}

Email::RunCounts Dispatcher::counts() const noexcept {
    Email::RunCounts all = ended_;
    for (const WorkerState& worker : pool_.workers()) {
        all += worker.counts;
    }
    // A worker counts what it was given; the run has seen all these.
    all.entries = static_cast<long>(tally_.due + tally_.waiting);
    return all;
}

void Dispatcher::ended(WorkerState& worker, int status) {
    // What it said before it ended, its last outcome perhaps.
    hear(worker);
    ended_ += worker.counts;
    worker.counts = {};
    const int number = WIFSIGNALED(status) ? WTERMSIG(status) : WEXITSTATUS(status);
    // Ended by our own signal, which is no fault of its.
    const bool ordered = cutShort() && WIFSIGNALED(status) && number == SIGTERM;
    worst_ = std::max(worst_, ordered ? 0 : number);
    const bool died = !worker.leaf.empty() || WIFSIGNALED(status);
    if (died && !ordered) {
        Email::writeLine(LogLine::WorkerDied, {.message = worker.leaf,
                                               .args = {std::to_string(worker.pid),
                                                        WIFSIGNALED(status) ? "signal" : "status",
                                                        std::to_string(number)}});
    }
    if (!worker.leaf.empty()) {
        ++tally_.died;
        worker.talk.lost = true;
        endTalk(worker);
    }
}

void Dispatcher::everySecond() {
    pool_.releaseIdle(now_ - kIdleFor);
    destinations_.prune(now_);
    if (watcher_) {
        watcher_(*this);
    }
}

void Dispatcher::tellEnd() const {
    if (const Email::RunCounts all = counts(); all.entries > 0) {
        Email::tellRunEnd(all, static_cast<long>(seconds() - began_));
    }
    for (const auto& [destination, messages] : left_) {
        Email::writeLine(LogLine::DestinationLeft,
                         {.args = {destination, std::to_string(messages)}});
    }
    Email::writeLine(LogLine::RunEnded,
                     {.args = {std::to_string(tally_.due), std::to_string(tally_.tried),
                               std::to_string(tally_.left), std::to_string(tally_.died),
                               std::to_string(tally_.waiting)}});
}

} // namespace Dispatch
