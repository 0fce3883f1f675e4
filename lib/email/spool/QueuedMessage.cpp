#include "email/spool/QueuedMessage.h"

#include "email/file/FdStream.h"
#include "email/site/mailscanGlobals.h"
#include "email/spool/MessageLock.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <istream>

namespace Email {

namespace {

constexpr mode_t kFileMode = 0664; // before the umask
constexpr std::size_t kBlockSize = 16384;

const FileName& directoryOf(QueuedMessage::Queue queue) noexcept {
    return queue == QueuedMessage::Queue::Deferred ? mailscanGlobals::deferred_mail_path
                                                   : mailscanGlobals::outgoing_mail;
}

Trouble troubleUnless(bool done) noexcept {
    return done ? std::nullopt : Trouble(errno);
}

bool exists(const FileName& file) noexcept {
    return ::access(file(), F_OK) == 0;
}

// A file that is gone already counts as removed.
Trouble removed(const FileName& file) noexcept {
    return troubleUnless(file.Delete() || errno == ENOENT);
}

bool copyAll(std::istream& text, int fd) {
    std::array<char, kBlockSize> block{};
    text.clear();
    text.seekg(0);
    do {
        text.read(block.data(), block.size());
        if (!writeAll(fd, {block.data(), static_cast<std::size_t>(text.gcount())})) {
            return false;
        }
    } while (text);
    if (text.bad() || !text.eof()) {
        errno = EIO; // a stream that fails says nothing there
        return false;
    }
    // On disc before a list makes it a message.
    return ::fsync(fd) == 0;
}

// True when at most one recipient stands in the two lists.
bool atMostOne(const MailList& a, const MailList& b) noexcept {
    return a.IsEmpty() ? b.IsEmpty() || b.one() : a.one() && b.IsEmpty();
}

std::string drawReturnName() {
    const FileName temporary(true);
    return std::string("rjct") + (temporary() + temporary.DirLength());
}

} // namespace

QueuedMessage::QueuedMessage(Queue queue, const FileName& entry)
    : QueuedMessage(queue, directoryOf(queue), entry) {}

QueuedMessage::QueuedMessage(Queue queue, const FileName& directory, const FileName& entry)
    : queue_(queue), text_(directory, entry, nullptr),
      list_(directory, entry, listEnding(queue).data()),
      temporary_(list_, std::string(1, kTemporaryEnding).c_str()) {}

std::string_view QueuedMessage::listEnding(Queue queue) noexcept {
    return queue == Queue::Deferred ? ".rmd" : ".rcp";
}

std::string_view QueuedMessage::messageOf(Queue queue, std::string_view list) noexcept {
    const std::string_view ending = listEnding(queue);
    return list.ends_with(ending) ? list.substr(0, list.size() - ending.size()) : "";
}

std::string QueuedMessage::newReturnName() {
    std::string name = drawReturnName();
    for (int draw = 1; draw < kNameDraws; ++draw) {
        const QueuedMessage other(Queue::Deferred, FileName(name.c_str()));
        if (!exists(other.text_) && !exists(other.list_)) {
            break;
        }
        name = drawReturnName();
    }
    return name;
}

Trouble QueuedMessage::read(Recipients& into, const MessageLock* held) const {
    const auto readFrom = [&](FdStream&& file) {
        const bool read = file.is_open() && into.Read(file, queue_ == Queue::Deferred);
        return read ? std::nullopt : Trouble(file.error());
    };
    return held != nullptr ? readFrom(FdStream(held->fd(), held->size()))
                           : readFrom(FdStream(list_()));
}

Trouble QueuedMessage::secure(const Recipients& untried, const MailList& failed) {
    Trouble trouble;
    std::size_t size = 0; // counted on the way: a walk over 100,000 records is no small thing
    if (served_) {        // else the list on disc still says who is left
        bytes_.clear();
        size = untried.appendTo(bytes_, failed);
        trouble = write(bytes_, &lock_);
        // Once that stands on disc, nobody who was served gets a second copy.
        served_ = trouble.has_value();
    }
    // The last recipient needs none: if it is served the list goes, if not its old line is still
    // right.
    if (!trouble && !room_ && !atMostOne(untried, failed)) {
        trouble = keepRoom(size != 0 ? size : untried.textSize(failed));
    }
    stuck_ = trouble.has_value();
    return trouble;
}

// Memory as well as disc: what happens after a conversation must not fail for want of either.
Trouble QueuedMessage::keepRoom(std::size_t size) {
    bytes_.reserve(size);
    const bool kept = openReplacement() && room_->inPlace() == 0 && room_->reserve(size);
    const Trouble trouble = troubleUnless(kept);
    if (!kept) {
        const int inPlace = room_->inPlace();
        room_.reset();
        return inPlace != 0 ? inPlace : trouble;
    }
    return std::nullopt;
}

bool QueuedMessage::openReplacement() {
    room_.emplace(list_(), kFileMode, FileReplacement::LeftOver::Keep);
    if (!room_->open() && errno == EEXIST && removeLeftOver()) {
        room_.emplace(list_(), kFileMode, FileReplacement::LeftOver::Keep);
    }
    return room_->open();
}

// Whether the file of that name is a left-over of a run that was killed, and is gone now. It may be
// the text of a message that somebody gave such a name.
bool QueuedMessage::removeLeftOver() const noexcept {
    if (exists(FileName(temporary_, listEnding(queue_).data()))) {
        errno = EEXIST;
        return false;
    }
    return temporary_.Delete();
}

void QueuedMessage::dropTemporary() noexcept {
    if (room_) {
        room_.reset();
    } else if (exists(temporary_)) {
        static_cast<void>(removeLeftOver());
    }
}

// What cannot be written to the room that was kept is tried once more from the beginning.
Trouble QueuedMessage::write(std::string_view bytes, UniqueFd* lock) {
    const bool kept = room_.has_value();
    if (!kept && !openReplacement()) {
        const Trouble trouble = errno;
        room_.reset();
        return trouble;
    }
    Trouble trouble = troubleUnless(room_->commit(bytes, lock));
    if (trouble && kept) {
        trouble = troubleUnless(openReplacement() && room_->commit(bytes, lock));
    }
    room_.reset();
    return trouble;
}

Trouble QueuedMessage::replaceList(std::string_view bytes) {
    return write(bytes, nullptr);
}

Trouble QueuedMessage::rewrite(Recipients& left) {
    bytes_.clear();
    left.takeTo(bytes_);
    return write(bytes_, nullptr);
}

Trouble QueuedMessage::remove(const Recipients* head) {
    dropTemporary();
    // The text first: should the run be killed now, the next walk deletes a list without a text,
    // but would never see a text without a list.
    const Trouble text = removed(text_);
    const Trouble list = removed(list_);
    if (list && head != nullptr) {
        // It cannot be deleted: without recipients nobody on it gets a second copy.
        bytes_.clear();
        head->appendTo(bytes_, MailList());
        static_cast<void>(overwrite(list_(), bytes_));
    }
    return text ? text : list;
}

Trouble QueuedMessage::store(std::istream& text) const {
    // Never over what is there, nor through a link.
    UniqueFd fd(openPatiently(text_(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kFileMode));
    if (!fd.valid()) {
        return errno;
    }
    const Trouble trouble = troubleUnless(copyAll(text, fd.get()) && fd.close());
    if (trouble) {
        text_.Delete();
    }
    return trouble;
}

Trouble QueuedMessage::adopt(const QueuedMessage& outgoing) const {
    const Trouble trouble = troubleUnless(outgoing.text_.MoveTo(text_));
    if (!trouble) {
        outgoing.list_.Delete(); // of another form; its recipients are in memory
    }
    return trouble;
}

Trouble QueuedMessage::writeFirstList(Recipients& recipients) {
    return rewrite(recipients);
}

Trouble QueuedMessage::sync() const {
    return troubleUnless(syncDirectory(text_()));
}

} // namespace Email
