#include "email/spool/DeliveryJournal.h"

#include "email/file/BoundedLineReader.h"
#include "email/file/FdStream.h"
#include "email/file/FileReplacement.h"
#include "email/spool/MailList.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string_view>
#include <unordered_map>
#include <utility>

namespace Email {

namespace {

constexpr mode_t kMode = 0664; // before the umask
// Ends every whole line: what a full disk or a power cut left half written never counts.
constexpr std::string_view kDone = "\tdone";

using Counts = std::unordered_map<std::string, int>;

Counts readDone(BoundedLineReader& in) {
    Counts counts;
    for (auto item = in.next(); item.kind == BoundedLineReader::Kind::Line; item = in.next()) {
        if (item.text.ends_with(kDone)) {
            item.text.remove_suffix(kDone.size());
            ++counts[std::string(item.text)];
        }
    }
    return counts;
}

// Moves the records that are not done with, counted one for one, to the head of the other list.
bool moveOthers(MailList& from, MailList& to, Counts& done) {
    bool left = false;
    while (auto record = from.Remove()) {
        const auto found = done.find(record->text());
        if (found != done.end() && found->second-- > 0) {
            left = true;
        } else {
            to.Add(std::move(record), IDS_NO_REASON);
        }
    }
    return left;
}

} // namespace

DeliveryJournal::DeliveryJournal(std::string recipientFile)
    : recipientFile_(std::move(recipientFile)), path_(recipientFile_ + '+') {}

// Inode, time and size: a list that was written anew, by whomever, differs in one of them.
std::string DeliveryJournal::owner() const {
    struct stat status {};
    if (::lstat(recipientFile_.c_str(), &status) != 0) {
        return {};
    }
    return std::to_string(status.st_ino) + ' ' + std::to_string(status.st_mtim.tv_sec) + '.' +
           std::to_string(status.st_mtim.tv_nsec) + ' ' + std::to_string(status.st_size);
}

bool DeliveryJournal::takeDone(MailList& list) {
    FdStream file(path_.c_str());
    exists_ = file.is_open();
    if (!exists_) {
        return false;
    }
    BoundedLineReader in(file, BoundedLineReader::kMaxLimit, BoundedLineReader::kMaxLimit);
    const auto first = in.next();
    if (first.kind != BoundedLineReader::Kind::Line || first.text.empty() ||
        first.text != owner()) {
        remove();
        return false;
    }
    Counts done = readDone(in);
    MailList kept;
    Counts nobody;
    const bool left = moveOthers(list, kept, done);
    moveOthers(kept, list, nobody); // the order is that of the file again
    return left;
}

void DeliveryJournal::note(const MailList& done) {
    for (const EmailAddr* rcpt = done.first(); rcpt != nullptr; rcpt = rcpt->next.get()) {
        noted_.append(rcpt->text()).append(kDone) += '\n';
    }
}

void DeliveryJournal::flush() {
    if (noted_.empty()) {
        return;
    }
    std::string lines = std::exchange(noted_, {});
    if (!exists_) {
        ::unlink(path_.c_str());
        lines.insert(0, owner() + '\n');
    }
    const int flags = O_WRONLY | O_APPEND | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK;
    const UniqueFd fd(::open(path_.c_str(), exists_ ? flags : flags | O_CREAT | O_EXCL, kMode));
    exists_ = exists_ || fd.valid();
    if (fd.valid() && !writeAll(fd.get(), lines)) {
        remove(); // cut in the middle, the next lines would not stand by themselves
    }
}

void DeliveryJournal::remove() noexcept {
    if (std::exchange(exists_, false)) {
        ::unlink(path_.c_str());
    }
}

} // namespace Email
