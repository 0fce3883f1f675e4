#include "email/dispatch/DueWindow.h"

#include <algorithm>
#include <utility>

namespace Dispatch {

namespace {

bool younger(const DueMessage& a, const DueMessage& b) noexcept {
    return a.firstTry != b.firstTry ? a.firstTry > b.firstTry : a.leaf > b.leaf;
}

} // namespace

void DueWindow::add(DueMessage message) {
    Group& group = groups_[message.destination];
    group.push_back(std::move(message));
    // On top comes the message that was first tried longest ago.
    std::ranges::push_heap(group, younger);
    ++size_;
}

DueWindow::Groups::iterator DueWindow::next(const MayBegin& mayBegin) {
    // Round robin: from behind the destination that was served last, then from the beginning.
    const auto begin = groups_.upper_bound(last_);
    const auto may = [&](const Groups::value_type& entry) { return mayBegin(entry.first); };
    const auto behind = std::find_if(begin, groups_.end(), may);
    if (behind != groups_.end()) {
        return behind;
    }
    const auto before = std::find_if(groups_.begin(), begin, may);
    return before != begin ? before : groups_.end();
}

std::optional<DueMessage> DueWindow::take(const MayBegin& mayBegin) {
    const auto found = next(mayBegin);
    if (found == groups_.end()) {
        return std::nullopt;
    }
    Group& group = found->second;
    std::ranges::pop_heap(group, younger);
    DueMessage message = std::move(group.back());
    group.pop_back();
    last_ = found->first;
    if (group.empty()) {
        groups_.erase(found);
    }
    --size_;
    return message;
}

std::size_t DueWindow::drop(const std::string& destination) {
    const auto found = groups_.find(destination);
    if (found == groups_.end()) {
        return 0;
    }
    Group& group = found->second;
    const std::size_t dropped =
        std::erase_if(group, [](const DueMessage& message) { return !message.otherWork; });
    std::ranges::make_heap(group, younger);
    if (group.empty()) {
        groups_.erase(found);
    }
    size_ -= dropped;
    return dropped;
}

} // namespace Dispatch
