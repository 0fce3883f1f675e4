// One run over the deferred spool with many conversations at once: finds what is due and hands it,
// message by message, to worker processes that run the engine under each message's lock.
//
// The dispatcher itself only reads the spool. Whatever becomes of it or of a worker leaves what a
// killed walker leaves, and it may run beside walkers and other dispatchers.
#pragma once

#include "email/dispatch/Destinations.h"
#include "email/dispatch/DueReader.h"
#include "email/dispatch/DueWindow.h"
#include "email/dispatch/WorkerPool.h"
#include "fwall/UniqueFd.h"

#include <csignal>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

class MailReSender;

namespace Dispatch {

struct Options {
    int workers = 200;
    int perDestination = Destinations::kDefaultMost;
    std::optional<std::vector<std::string>> only{}; // these messages, and no others
    Task task{};
};

// What a run has come to so far, in messages.
struct Tally {
    std::uint64_t due = 0;     // found due
    std::uint64_t waiting = 0; // found, but not due
    std::uint64_t tried = 0;   // handed to a worker that is done with them
    std::uint64_t left = 0;    // due still: their destination was found dead
    std::uint64_t died = 0;    // were in the hands of a worker that died
};

class Dispatcher {
public:
    // Needs the settings loaded and one thread. From here to the destruction SIGTERM, SIGINT and
    // SIGCHLD are blocked and wait for run().
    explicit Dispatcher(const Options& options);
    ~Dispatcher();
    Dispatcher(const Dispatcher&) = delete;
    Dispatcher& operator=(const Dispatcher&) = delete;

    // Called about once a second while the run lasts.
    using Watcher = std::function<void(const Dispatcher&)>;
    void setWatcher(Watcher watcher) { watcher_ = std::move(watcher); }

    // Called for each report of a worker, before it is acted upon.
    using Listener = std::function<void(const WorkerState&, const Report&)>;
    void setListener(Listener listener) { listener_ = std::move(listener); }

    // Until everything due was tried once, or left. The first SIGTERM or SIGINT ends the run when
    // the messages in hand are done, a second one, or a minute, ends it at once. Returns the worst
    // exit status of the workers; for one that a signal ended, the signal's number.
    int run();

    // True when a second signal has ended the workers: nobody waits for a result any more.
    [[nodiscard]] bool cutShort() const noexcept { return stopRequests_ > 1; }

    // Messages of dead destinations that were left, by destination.
    [[nodiscard]] const std::map<std::string, std::uint64_t>& left() const noexcept {
        return left_;
    }
    [[nodiscard]] const Tally& tally() const noexcept { return tally_; }
    // Recipients by outcome, so far; `entries` are the messages found, due or not.
    [[nodiscard]] Email::RunCounts counts() const noexcept;
    [[nodiscard]] const std::list<WorkerState>& workers() const noexcept { return pool_.workers(); }
    [[nodiscard]] std::size_t known() const noexcept { return window_.size(); }
    // Of the same clock as WorkerState::since.
    [[nodiscard]] std::int64_t now() const noexcept { return now_; }

private:
    [[nodiscard]] bool finished() const noexcept;
    bool readOn();
    void takeIn(DueMessage message);
    void leave(const std::string& destination, std::size_t messages);
    void handOut();
    [[nodiscard]] bool mayBegin(const std::string& destination) const;
    void give(WorkerState& worker, DueMessage message);
    void walkAlone();
    void tryEach(MailReSender& walker);

    void wait(int milliseconds);
    void takeSignals();
    void askToStop();
    void hear(WorkerState& worker);
    void take(WorkerState& worker, const Report& report);
    void chose(WorkerState& worker, const std::string& destination);
    void endTalk(WorkerState& worker);
    void done(WorkerState& worker);
    void ended(WorkerState& worker, int status);
    void everySecond();
    void tellEnd() const;

    sigset_t before_; // the signal mask
    UniqueFd signals_;
    DueReader reader_;
    DueWindow window_;
    Destinations destinations_;
    WorkerPool pool_;
    Watcher watcher_;
    Listener listener_;
    Tally tally_;
    Email::RunCounts ended_; // of the workers that are gone
    std::int64_t began_ = 0;
    std::map<std::string, std::uint64_t> left_; // messages of dead destinations
    std::int64_t now_ = 0;                      // seconds of a clock that never goes back
    bool allRead_ = false;
    int stopRequests_ = 0;
    std::optional<std::int64_t> stopSince_; // when the first signal came
    int worst_ = 0;
};

} // namespace Dispatch
