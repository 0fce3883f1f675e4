#include "email/dispatch/DueReader.h"

#include "email/dispatch/DestinationName.h"
#include "email/engine/RetrySchedule.h"
#include "email/site/mailscanGlobals.h"
#include "email/spool/QueuedMessage.h"
#include "email/spool/Recipients.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <utility>

namespace Dispatch {

namespace {

using Email::QueuedMessage;
constexpr QueuedMessage::Queue kDeferred = QueuedMessage::Queue::Deferred;

} // namespace

DueReader::DueReader(std::string directory)
    : path_(std::move(directory)), directory_(::opendir(path_.c_str())) {
    if (!path_.ends_with('/')) {
        path_ += '/';
    }
}

void DueReader::readOnly(std::vector<std::string> leaves) {
    only_ = std::move(leaves);
}

// The name of the next entry; empty at the end.
std::string DueReader::nextEntry() {
    if (only_) {
        if (only_->empty() || !directory_) {
            return {};
        }
        std::string entry = std::move(only_->back()).append(QueuedMessage::listEnding(kDeferred));
        only_->pop_back();
        return entry;
    }
    const dirent* const entry = directory_ ? ::readdir(directory_.get()) : nullptr;
    return entry == nullptr ? std::string() : entry->d_name;
}

DueReader::Found DueReader::next(DueMessage& message) {
    const std::string entry = nextEntry();
    if (entry.empty()) {
        directory_.reset();
        return Found::End;
    }
    const std::string_view leaf = QueuedMessage::messageOf(kDeferred, entry);
    // What a walker would not be shown as an entry of its own is no message.
    if (leaf.find_first_not_of('.') == std::string_view::npos || !hasText(leaf)) {
        return Found::Nothing;
    }
    message = {};
    message.leaf = leaf;
    return judge(message);
}

bool DueReader::hasText(std::string_view leaf) const {
    struct stat text {};
    // As the walk sees it: a link is an entry, wherever it points.
    return ::fstatat(::dirfd(directory_.get()), std::string(leaf).c_str(), &text,
                     AT_SYMLINK_NOFOLLOW) == 0;
}

DueReader::Found DueReader::judge(DueMessage& message) const {
    Recipients list;
    if (!list.Read(
            FileName((path_ + message.leaf).append(QueuedMessage::listEnding(kDeferred)).c_str()),
            true)) {
        return Found::Due; // the engine gives it up, or passes it over
    }
    const DateTime now(-1);
    message.firstTry = list.firstSendTime().Time;
    if (Email::overdue(list.firstSendTime(), now, mailscanGlobals::retry_max_interval)) {
        message.destination = returnDestination(list.GetSender());
        return Found::Due;
    }
    const std::int32_t wait =
        Email::waitAfter(list.firstSendTime(), list.lastSendTime(),
                         mailscanGlobals::retry_min_interval, mailscanGlobals::retry_max_wait);
    if (Email::tooSoon(list.lastSendTime(), now, wait)) {
        return Found::Waiting;
    }
    message.destination = list.IsEmpty() ? std::string() : destinationOf(*list.first());
    message.otherWork = severalDestinations(list);
    return Found::Due;
}

} // namespace Dispatch
