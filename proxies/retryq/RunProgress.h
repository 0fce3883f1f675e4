// How a run comes along: a few lines on a terminal that are redrawn in place, else a line now and
// then.
#pragma once

#include "email/dispatch/Dispatcher.h"
#include "retryq/Format.h"
#include "retryq/Json.h"

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace Retryq {

class RunProgress {
public:
    // `there`: messages in the spool when the run begins; `between`: the time between two lines.
    RunProgress(Screen screen, bool json, std::uint64_t there, std::chrono::seconds between)
        : screen_(screen), json_(json), there_(there), between_(between) {}

    // To be called about once a second.
    void show(const Dispatch::Dispatcher& run);

    // Wipes what stands on the terminal, and tells what the run came to.
    void end(const Dispatch::Dispatcher& run);

private:
    using Clock = std::chrono::steady_clock;

    // Of the destinations that messages are at now, one whose message has taken longest so far.
    struct Slow {
        std::string destination;
        std::int64_t seconds = 0;
        int messages = 0;
    };
    static std::vector<Slow> slowest(const Dispatch::Dispatcher& run);

    [[nodiscard]] double seconds() const;
    [[nodiscard]] double rate(const Dispatch::Dispatcher& run) const;
    [[nodiscard]] std::int64_t timeLeft(const Dispatch::Dispatcher& run) const;
    [[nodiscard]] std::string state(const Dispatch::Dispatcher& run) const;
    [[nodiscard]] Json object(const Dispatch::Dispatcher& run, const char* what) const;
    void draw(const std::vector<std::string>& lines);
    void wipe();

    Screen screen_;
    bool json_;
    std::uint64_t there_;
    std::chrono::seconds between_;
    Clock::time_point begin_ = Clock::now();
    Clock::time_point told_ = begin_;
    std::size_t drawn_ = 0; // lines on the terminal
};

// Messages in the spool, quickly: recipient files.
[[nodiscard]] std::uint64_t countMessages(const std::string& directory);

} // namespace Retryq
