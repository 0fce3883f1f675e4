#include "retryq/RunProgress.h"

#include "email/spool/QueuedMessage.h"
#include "fwall/UniqueFd.h"
#include "fwall/hexesc.h"

#include <dirent.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <map>
#include <memory>

namespace Retryq {

namespace {

constexpr std::size_t kSlowShown = 3;
constexpr std::size_t kShown = 80; // bytes of a destination

std::string withOneDigit(double value) {
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%.1f", value);
    return text.data();
}

std::uint64_t inHand(const Dispatch::Dispatcher& run) {
    return static_cast<std::uint64_t>(std::ranges::count_if(
        run.workers(), [](const Dispatch::WorkerState& worker) { return !worker.leaf.empty(); }));
}

std::string outcomes(const Email::RunCounts& counts) {
    return std::to_string(counts.delivered) + " delivered, " + std::to_string(counts.deferred) +
           " deferred, " + std::to_string(counts.returned) + " returned, " +
           std::to_string(counts.dropped) + " dropped";
}

// Goes on in the next row where the figures do not fit; what has no comma is cut.
void addRows(std::string_view line, std::size_t room, std::vector<std::string>& rows) {
    constexpr std::string_view kBetween = ", ";
    while (line.size() > room) {
        const std::size_t comma = line.rfind(kBetween, room - 1);
        if (comma == std::string_view::npos) {
            line = line.substr(0, room);
            break;
        }
        rows.emplace_back(line.substr(0, comma + 1));
        line.remove_prefix(comma + kBetween.size());
    }
    rows.emplace_back(line);
}

std::uint64_t seen(const Dispatch::Tally& tally) {
    return tally.due + tally.waiting;
}

std::string nameOf(const std::string& destination) {
    return destination.empty() ? "(no domain)" : printable(destination, kShown);
}

} // namespace

std::uint64_t countMessages(const std::string& directory) {
    using Email::QueuedMessage;
    const UniqueDirectory spool(::opendir(directory.c_str()));
    std::uint64_t count = 0;
    while (const dirent* entry = spool ? ::readdir(spool.get()) : nullptr) {
        const bool list =
            !QueuedMessage::messageOf(QueuedMessage::Queue::Deferred, entry->d_name).empty();
        count += list ? 1 : 0;
    }
    return count;
}

double RunProgress::seconds() const {
    return std::chrono::duration<double>(Clock::now() - begin_).count();
}

double RunProgress::rate(const Dispatch::Dispatcher& run) const {
    return static_cast<double>(run.tally().tried) / std::max(seconds(), 0.001);
}

// As if all that was not looked at yet were due; -1 while nothing is known.
std::int64_t RunProgress::timeLeft(const Dispatch::Dispatcher& run) const {
    const std::uint64_t unseen = there_ - std::min(there_, seen(run.tally()));
    const std::uint64_t left = unseen + run.known() + inHand(run);
    const double speed = rate(run);
    return speed <= 0 ? -1 : static_cast<std::int64_t>(static_cast<double>(left) / speed);
}

std::vector<RunProgress::Slow> RunProgress::slowest(const Dispatch::Dispatcher& run) {
    std::map<std::string, Slow> found;
    for (const Dispatch::WorkerState& worker : run.workers()) {
        if (!worker.leaf.empty()) {
            Slow& slow = found[worker.talk.destination];
            slow.destination = worker.talk.destination;
            slow.seconds = std::max(slow.seconds, run.now() - worker.since);
            ++slow.messages;
        }
    }
    std::vector<Slow> all;
    for (auto& [name, slow] : found) {
        if (slow.seconds > 0) {
            all.push_back(std::move(slow));
        }
    }
    std::ranges::stable_sort(all, std::ranges::greater{}, &Slow::seconds);
    all.resize(std::min(all.size(), kSlowShown));
    return all;
}

std::string RunProgress::state(const Dispatch::Dispatcher& run) const {
    const Dispatch::Tally& tally = run.tally();
    return std::to_string(seen(tally)) + " of " + std::to_string(std::max(there_, seen(tally))) +
           " messages seen, " + std::to_string(inHand(run)) + " in hand, " +
           std::to_string(tally.tried) + " tried (" + withOneDigit(rate(run)) + "/s), " +
           durationText(timeLeft(run)) + " left";
}

Json RunProgress::object(const Dispatch::Dispatcher& run, const char* what) const {
    const Dispatch::Tally& tally = run.tally();
    const Email::RunCounts counts = run.counts();
    Json object{{"report", what},
                {"due", tally.due},
                {"tried", tally.tried},
                {"left", tally.left},
                {"died", tally.died},
                {"waiting", tally.waiting},
                {"delivered", counts.delivered},
                {"deferred", counts.deferred},
                {"returned", counts.returned},
                {"dropped", counts.dropped},
                {"seconds", seconds()}};
    Json dead = Json::array();
    for (const auto& [destination, messages] : run.left()) {
        dead.push_back({{"destination", destination}, {"messages", messages}});
    }
    object["dead_destinations"] = std::move(dead);
    return object;
}

void RunProgress::wipe() {
    if (drawn_ != 0) {
        screen_.out << "\033[" << drawn_ << "A\r\033[J" << std::flush;
        drawn_ = 0;
    }
}

// A row that the terminal wrapped would take two, and the next picture would begin too far down:
// the width is asked for each time.
void RunProgress::draw(const std::vector<std::string>& lines) {
    wipe();
    const auto room = static_cast<std::size_t>(std::max(standardScreen(screen_.out).width - 1, 1));
    std::vector<std::string> rows;
    for (const std::string& line : lines) {
        addRows(line, room, rows);
    }
    for (const std::string& row : rows) {
        screen_.out << row << '\n';
    }
    screen_.out << std::flush;
    drawn_ = rows.size();
}

void RunProgress::show(const Dispatch::Dispatcher& run) {
    const bool terminal = screen_.width != 0 && !json_;
    if (!terminal && Clock::now() - told_ < between_) {
        return;
    }
    told_ = Clock::now();
    if (json_) {
        Json progress = object(run, "progress");
        progress["there"] = there_;
        progress["in_hand"] = inHand(run);
        progress["seconds_left"] = timeLeft(run);
        for (const Slow& slow : slowest(run)) {
            progress["slowest"].push_back({{"destination", slow.destination},
                                           {"messages", slow.messages},
                                           {"seconds", slow.seconds}});
        }
        writeJson(screen_.out, progress);
        screen_.out << std::flush;
        return;
    }
    const std::string served = outcomes(run.counts());
    if (!terminal) {
        screen_.out << state(run) << "; " << served << std::endl;
        return;
    }
    std::vector<std::string> lines{state(run), served};
    for (const Slow& slow : slowest(run)) {
        lines.push_back("slow: " + nameOf(slow.destination) + ", " + std::to_string(slow.messages) +
                        " in hand, the longest for " + durationText(slow.seconds));
    }
    draw(lines);
}

void RunProgress::end(const Dispatch::Dispatcher& run) {
    wipe();
    if (json_) {
        writeJson(screen_.out, object(run, "end"));
        return;
    }
    const Dispatch::Tally& tally = run.tally();
    screen_.out << tally.tried << " of " << tally.due << " due messages tried, " << tally.left
                << " left for dead destinations, " << tally.waiting << " not due; "
                << withOneDigit(seconds()) << " s\n"
                << "recipients: " << outcomes(run.counts()) << '\n';
    for (const auto& [destination, messages] : run.left()) {
        screen_.out << "no server answered: " << nameOf(destination) << ", " << messages
                    << " messages left\n";
    }
    if (tally.died != 0) {
        screen_.out << tally.died << " were in the hands of workers that died\n";
    }
}

} // namespace Retryq
