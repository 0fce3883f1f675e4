// The messages that are due and not yet handed out, as far as they are known: a bounded window on
// the spool, so that a spool of any size takes the same memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace Dispatch {

struct DueMessage {
    std::string leaf;
    std::string destination;   // of the recipient that is served first (DestinationName.h)
    std::int64_t firstTry = 0; // seconds since the epoch
    bool otherWork = false;    // it has more to do than to serve this one destination
};

class DueWindow {
public:
    static constexpr std::size_t kCapacity = 20000;

    explicit DueWindow(std::size_t capacity = kCapacity) noexcept : capacity_(capacity) {}

    [[nodiscard]] bool full() const noexcept { return size_ >= capacity_; }
    [[nodiscard]] bool empty() const noexcept { return size_ == 0; }
    [[nodiscard]] std::size_t size() const noexcept { return size_; }
    [[nodiscard]] bool holds(const std::string& destination) const {
        return groups_.contains(destination);
    }

    // Takes a message in, also beyond the capacity: the caller asks full() first.
    void add(DueMessage message);

    // The message that was first tried longest ago of the next destination that may begin one:
    // round robin, so that no destination waits for another's backlog. Nothing when none may.
    using MayBegin = std::function<bool(const std::string& destination)>;
    std::optional<DueMessage> take(const MayBegin& mayBegin);

    // Takes those of one destination out that have no other work to do, and returns their number.
    std::size_t drop(const std::string& destination);

private:
    using Group = std::vector<DueMessage>; // a heap, the oldest on top
    using Groups = std::map<std::string, Group>;

    Groups::iterator next(const MayBegin& mayBegin);

    std::size_t capacity_;
    std::size_t size_ = 0;
    Groups groups_;    // none is empty
    std::string last_; // the destination that was served last
};

} // namespace Dispatch
