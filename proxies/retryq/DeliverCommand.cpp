#include "email/dispatch/Dispatcher.h"
#include "email/site/mailscanGlobals.h"
#include "fwall/hexesc.h"
#include "retryq/Commands.h"
#include "retryq/HeldLocks.h"
#include "retryq/Json.h"
#include "retryq/RunState.h"
#include "retryq/Selection.h"
#include "retryq/WalkerProcess.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <map>

namespace Retryq {

namespace {

using Dispatch::Report;
using Dispatch::Step;

constexpr std::size_t kShown = 256;
constexpr std::size_t kLineShown = 3 * Report::kMaxText;

std::string addressText(IPaddress address) {
    std::array<char, IPaddress::kTextSize> text{};
    address.format(text.data());
    return text.data();
}

// "14:05:09.123" in the local zone.
std::string clockText(std::chrono::system_clock::time_point now) {
    using namespace std::chrono;
    const std::time_t seconds = system_clock::to_time_t(now);
    const auto thousandths = duration_cast<milliseconds>(now.time_since_epoch()).count() % 1000;
    std::tm fields{};
    ::localtime_r(&seconds, &fields);
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%02d:%02d:%02d.%03d", fields.tm_hour, fields.tm_min,
                  fields.tm_sec, static_cast<int>(thousandths));
    return text.data();
}

Colour colourOf(const std::string& word) noexcept {
    if (word == "delivered") {
        return Colour::Green;
    }
    return word == "deferred" ? Colour::Yellow : Colour::Red;
}

// Recipients that an outcome was told of.
long served(const Email::RunCounts& counts) noexcept {
    return counts.delivered + counts.returnDelivered + counts.deferred + counts.returned +
           counts.dropped;
}

// Shows what the workers report, as it comes.
class Outcomes {
public:
    Outcomes(const Context& context, bool trace, const std::vector<std::string>& leaves)
        : context_(context), trace_(trace) {
        for (const std::string& leaf : leaves) {
            open_[leaf] = 0;
        }
    }

    void hear(const Dispatch::WorkerState& worker, const Report& report) {
        switch (report.step) {
        case Step::Outcome:
            ++open_[worker.leaf];
            outcome(worker.leaf, report);
            break;
        case Step::Done:
            done(worker.leaf, served(report.counts) - served(worker.counts));
            break;
        default:
            if (trace_) {
                trace(worker.leaf, report);
            }
            break;
        }
        context_.screen.out << std::flush;
    }

    // The messages that have no outcome yet.
    void tellRest() {
        for (const auto& [leaf, outcomes] : open_) {
            notTried(leaf, outcomes == 0 ? "not tried: no server of its destination answers, or "
                                           "the run ended"
                                         : "was not finished");
        }
    }

    [[nodiscard]] bool all() const noexcept { return all_; }

private:
    // A line of the conversation as it was said; what is none is told in words.
    static std::string traceText(const Report& report) {
        switch (report.step) {
        case Step::Said:
            return "-> " + printable(report.text, kLineShown);
        case Step::Heard:
            return "<- " + printable(report.text, kLineShown);
        case Step::Chose:
            return "** looking for a server for " + printable(report.text, kShown);
        case Step::Connected:
            return "** connected to " + addressText(report.server);
        case Step::ConnectFailed:
            return "** no connection to " + addressText(report.server) + ": " +
                   std::generic_category().message(report.value);
        case Step::NoGreeting:
            return "** " + addressText(report.server) + " did not greet";
        case Step::NotSignedIn:
            return "** " + addressText(report.server) + " did not let us sign in";
        default:
            return "** the connection was lost";
        }
    }

    void trace(const std::string& leaf, const Report& report) const {
        const auto now = std::chrono::system_clock::now();
        if (!context_.json) {
            context_.screen.out << clockText(now) << ' ' << printable(leaf, kShown) << ' '
                                << traceText(report) << '\n';
            return;
        }
        const bool line = report.step == Step::Said || report.step == Step::Heard;
        const char* const what = report.step == Step::Said ? "said" : "heard";
        const double time = std::chrono::duration<double>(now.time_since_epoch()).count();
        writeJson(context_.screen.out,
                  {{"report", line ? what : "step"},
                   {"message", leaf},
                   {"time", time},
                   {"text", line ? report.text : traceText(report).substr(3)}});
    }

    void outcome(const std::string& leaf, const Report& report) const {
        const auto told = Dispatch::RecipientOutcome::from(report.text);
        const bool server = report.server != IPaddress::null;
        if (context_.json) {
            writeJson(context_.screen.out,
                      {{"report", "outcome"},
                       {"message", leaf},
                       {"recipient", told.recipient},
                       {"outcome", told.word},
                       {"code", report.value},
                       {"server", server ? Json(addressText(report.server)) : Json()},
                       {"stage", told.stage},
                       {"reply", told.words}});
            return;
        }
        const std::string words =
            told.words.empty() ? codeAndText(report.value) : printable(told.words, kLineShown);
        context_.screen.out << printable(leaf, kShown) << ' '
                            << context_.screen.paint(told.word, colourOf(told.word)) << ' '
                            << printable(told.recipient, kLineShown)
                            << (server ? " by " + addressText(report.server) : std::string())
                            << (told.stage.empty() ? "" : " at " + told.stage) << ": " << words
                            << '\n';
    }

    // A message without any outcome was passed over by the engine, which does not say why.
    void done(const std::string& leaf, long tried) {
        const auto found = open_.find(leaf);
        if (found != open_.end() && tried == 0) {
            notTried(leaf, whyPassedOver(leaf));
        } else if (found != open_.end() && found->second < tried) {
            context_.screen.out << std::flush;
            std::cerr << "retryq: " << printable(leaf, kShown) << ": " << tried - found->second
                      << " outcomes are in the log only\n";
        }
        open_.erase(leaf);
    }

    [[nodiscard]] std::string whyPassedOver(const std::string& leaf) const {
        struct stat list {};
        if (::stat(context_.queue.recipientPath(leaf).c_str(), &list) != 0) {
            return "is no longer in the queue";
        }
        const UniqueFd directory(
            ::open(context_.queue.directory().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        const pid_t holder = HeldLocks::on(directory.get()).holder(list.st_ino);
        return holder == 0 ? "was passed over: retryq show tells more"
                           : "is being worked on by process " + std::to_string(holder);
    }

    void notTried(const std::string& leaf, const std::string& why) {
        all_ = false;
        if (context_.json) {
            writeJson(context_.screen.out,
                      {{"report", "not-tried"}, {"message", leaf}, {"reason", why}});
        } else {
            context_.screen.out << printable(leaf, kShown) << ' ' << why << '\n';
        }
    }

    const Context& context_;
    bool trace_;
    bool all_ = true;
    std::map<std::string, long> open_; // the outcomes that were told of each message
};

// Null when the filter is about whole messages.
ListSender::Wanted wantedBy(const Filter& filter) {
    if (!filter.namesRecipients()) {
        return nullptr;
    }
    return [&filter](const EmailAddr& recipient) { return filter.wants(recipient); };
}

// False, with a word about it, when there is nothing to try.
bool choose(const Context& context, const Delivery& delivery, std::vector<std::string>& leaves) {
    if (delivery.names.empty() && delivery.filter.empty()) {
        std::cerr << "retryq deliver: needs a message, --domain, --recipient or --sender; retryq "
                     "run --now tries all\n";
        return false;
    }
    if (!mayChange(context, "deliver") ||
        !select(context, "deliver", delivery.names, delivery.filter, leaves)) {
        return false;
    }
    if (leaves.empty()) {
        std::cerr << "retryq deliver: no message fits\n";
    }
    return !leaves.empty();
}

// The status of the run. While the dispatcher lives, the process's signals are its own.
int tryEach(const Delivery& delivery, const std::vector<std::string>& leaves, Outcomes& outcomes,
            bool& cutShort) {
    using Dispatch::Tells;
    Dispatch::Dispatcher dispatcher(
        {.only = leaves,
         .task = {.tells = delivery.trace ? Tells::Conversation : Tells::Outcomes,
                  .wanted = wantedBy(delivery.filter)}});
    dispatcher.setListener([&outcomes](const Dispatch::WorkerState& worker, const Report& report) {
        outcomes.hear(worker, report);
    });
    RunState state;
    dispatcher.setWatcher(
        [&state](const Dispatch::Dispatcher& running) { state.publish(running); });
    const int status = dispatcher.run();
    cutShort = dispatcher.cutShort();
    return status;
}

} // namespace

int deliver(const Context& context, const Delivery& delivery) {
    std::vector<std::string> leaves;
    if (!choose(context, delivery, leaves)) {
        return kTrouble;
    }
    // Who names a message does not want to be told that it waits.
    mailscanGlobals::retry_min_interval = 0;
    becomeWalker(context);
    Outcomes outcomes(context, delivery.trace, leaves);
    bool cutShort = false;
    const int status = tryEach(delivery, leaves, outcomes, cutShort);
    outcomes.tellRest();
    endWalk(context, cutShort);
    return status != kDone || outcomes.all() ? status : kTrouble;
}

} // namespace Retryq
