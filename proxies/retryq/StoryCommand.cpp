#include "retryq/History.h"
#include "retryq/Json.h"
#include "retryq/Table.h"

#include "fwall/hexesc.h"

#include <strings.h>

#include <algorithm>
#include <iostream>
#include <set>

namespace Retryq {

namespace {

constexpr std::size_t kShown = 1024;
constexpr std::size_t kMostMessages = 10'000; // of one address that are followed

// One line that was found; the entry's views are gone by then.
struct Event {
    std::time_t time;
    std::int32_t pid;
    std::string text;
};

bool sameText(std::string_view a, std::string_view b) noexcept {
    return a.size() == b.size() && ::strncasecmp(a.data(), b.data(), a.size()) == 0;
}

// An address stands in brackets in the log and is asked for with or without.
bool sameAddress(std::string_view inLog, std::string_view asked) noexcept {
    if (!asked.starts_with('<') && inLog.size() >= 2) {
        inLog = inLog.substr(1, inLog.size() - 2);
    }
    return sameText(inLog, asked);
}

// Picks the lines about one message, or about one address and the messages it is on.
class Picker {
public:
    explicit Picker(const std::string& about)
        : about_(printable(about, kShown)), address_(about.find('@') != std::string::npos) {}

    void look(const LogEntry& entry) {
        if (concerns(entry)) {
            events_.push_back({entry.time, entry.pid, std::string(entry.text)});
        }
    }

    std::vector<Event> take() {
        std::ranges::stable_sort(events_, {}, &Event::time);
        return std::move(events_);
    }

private:
    bool concerns(const LogEntry& entry) {
        if (!address_) {
            return entry.message == about_;
        }
        if (sameAddress(entry.recipient, about_) || sameAddress(entry.sender, about_)) {
            if (!entry.message.empty() && messages_.size() < kMostMessages) {
                messages_.emplace(entry.message);
            }
            return true;
        }
        // What is said of a whole message concerns each of its recipients.
        return entry.recipient.empty() && !entry.message.empty() &&
               messages_.find(entry.message) != messages_.end();
    }

    std::string about_;
    bool address_;
    std::set<std::string, std::less<>> messages_;
    std::vector<Event> events_;
};

// On a terminal a line too long for it goes on below, set in.
void print(const Context& context, const std::vector<Event>& events) {
    constexpr int kIndent = 4;
    const int width = context.screen.width == 0 ? 0 : context.screen.width - kIndent;
    for (const Event& event : events) {
        const std::string time = localTimeText(event.time);
        const std::string text = time + "  " + printable(event.text, kShown);
        context.screen.out << context.screen.paint(time, Colour::Bold)
                           << wrapped(text, width, kIndent).substr(time.size()) << '\n';
    }
}

} // namespace

int story(const Context& context, const History& history, const std::string& about) {
    Picker picker(about);
    std::time_t since = 0;
    if (!history.since.empty() && !beginOf("story", history, context.now, since)) {
        return kTrouble;
    }
    const bool read = readHistory("story", history, context.now, since, [&](const LogEntry& entry) {
        if (entry.time >= since) {
            picker.look(entry);
        }
    });
    const std::vector<Event> events = picker.take();
    if (context.json) {
        for (const Event& event : events) {
            writeJson(
                context.screen.out,
                {{"time", isoTimeText(event.time)}, {"pid", event.pid}, {"text", event.text}});
        }
    } else {
        print(context, events);
    }
    if (events.empty()) {
        std::cerr << "retryq story: the log has nothing about " << printable(about, kShown) << '\n';
    }
    return read && !events.empty() ? kDone : kTrouble;
}

} // namespace Retryq
