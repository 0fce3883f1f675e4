#include "retryq/SpoolCheck.h"

#include "email/base/Utils.h"
#include "email/file/BoundedLineReader.h"
#include "email/file/FdStream.h"
#include "email/spool/Hold.h"
#include "email/spool/Recipients.h"
#include "fwall/UniqueFd.h"
#include "fwall/hexesc.h"
#include "retryq/FileSystemProbe.h"

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <set>

namespace Retryq {

namespace {

using Email::QueuedMessage;
using Weight = Finding::Weight;

constexpr std::size_t kPathLimit = 200; // a message whose path is as long is never tried
constexpr std::size_t kShown = 512;
constexpr std::string_view kUntouched = "untouched";
constexpr std::string_view kRemoved = "removed";
constexpr std::string_view kReturned = "returned";
constexpr std::time_t kSecondsToWrite = 60; // a younger temporary file may still be written
constexpr std::uint64_t kLowBytes = std::uint64_t{64} << 20;
constexpr std::uint64_t kLowInodes = 1000;

std::string errorText() {
    return std::strerror(errno);
}

std::string ownerText(const struct stat& status) {
    const passwd* const user = ::getpwuid(status.st_uid);
    const group* const team = ::getgrgid(status.st_gid);
    std::array<char, 16> mode{};
    std::snprintf(mode.data(), mode.size(), " %04o", static_cast<unsigned>(status.st_mode & 07777));
    return (user == nullptr ? std::to_string(status.st_uid) : user->pw_name) + ":" +
           (team == nullptr ? std::to_string(status.st_gid) : team->gr_name) + mode.data();
}

// Says the first few of many findings of one kind, and then how many more there are.
class Limited {
public:
    Limited(std::vector<Finding>& out, std::size_t most, const char* kind)
        : out_(out), most_(most), kind_(kind) {}
    ~Limited() {
        if (count_ > most_) {
            out_.push_back(
                {Weight::Warning, 0, std::to_string(count_ - most_) + " more: " + kind_});
        }
    }
    Limited(const Limited&) = delete;
    Limited& operator=(const Limited&) = delete;

    void add(const std::string& name, const std::string& text, const std::string& leaf = {},
             std::string_view fate = {}) {
        if (++count_ <= most_) {
            out_.push_back({Weight::Warning, 0, printable(name, kShown) + ": " + text, leaf, fate});
        }
    }

private:
    std::vector<Finding>& out_;
    std::size_t most_;
    const char* kind_;
    std::size_t count_ = 0;
};

// As the lock is taken: what cannot be opened for writing is passed over.
MessageFault lockFault(const std::string& list) {
    struct stat status {};
    if (::stat(list.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
        return {"is no file: never delivered", kUntouched};
    }
    if (UniqueFd(::open(list.c_str(), O_RDWR | O_CLOEXEC | O_NONBLOCK | O_NOCTTY)).valid()) {
        return {};
    }
    return {"cannot be opened for locking (" + errorText() + "): never delivered", kUntouched};
}

MessageFault textFault(const std::string& path) {
    const Email::OpenedText text = Email::openText(path.c_str());
    if (text.error == 0) {
        return {};
    }
    return {std::string("cannot be opened (") + std::strerror(text.error) +
                "): the message will be removed",
            kRemoved};
}

class SpoolCheck {
public:
    SpoolCheck(const std::string& directory, QueuedMessage::Queue queue, std::size_t most)
        : queue_(queue), most_(most), suffix_(QueuedMessage::listEnding(queue)) {
        report_.directory = directory + (directory.ends_with('/') ? "" : "/");
    }

    SpoolReport run() {
        struct stat status {};
        if (::stat(report_.directory.c_str(), &status) != 0) {
            warn("cannot be looked at: " + errorText());
        } else if (!S_ISDIR(status.st_mode)) {
            warn("is no directory");
        } else {
            report_.owner = ownerText(status);
            checkMode(status.st_mode);
            checkSpace();
            checkPromises();
            checkFiles();
        }
        return std::move(report_);
    }

private:
    void warn(const std::string& text) { report_.findings.push_back({Weight::Warning, 0, text}); }

    void checkMode(mode_t mode) {
        if ((mode & S_IWOTH) != 0) {
            warn("everybody may write here: chmod o-w");
        } else if ((mode & (S_IROTH | S_IXOTH)) != 0) {
            warn("everybody may look at the mail: chmod o-rx");
        }
    }

    void checkSpace() {
        struct statvfs space {};
        if (::statvfs(report_.directory.c_str(), &space) != 0) {
            warn("its free space is not known: " + errorText());
            return;
        }
        report_.freeBytes = std::uint64_t{space.f_bavail} * space.f_frsize;
        report_.freeInodes = space.f_favail;
        report_.totalInodes = space.f_files;
        if (report_.freeBytes < kLowBytes) {
            warn("less than 64 MiB are free");
        }
        // Some file systems have no fixed number of files.
        if (report_.totalInodes != 0 && report_.freeInodes < kLowInodes) {
            warn("fewer than 1000 files can be made");
        }
    }

    void checkPromises() {
        for (const std::string& fault : FileSystemProbe(report_.directory).run()) {
            warn(fault);
        }
    }

    void checkFiles() {
        const std::vector<std::string> names = readNames();
        Limited longPaths(report_.findings, most_, "paths that are too long");
        Limited noFile(report_.findings, most_, "texts without recipient file");
        Limited noText(report_.findings, most_, "recipient files without text");
        Limited unusable(report_.findings, most_, "recipient files with faults");
        // First who is on hold: such a message has no list of the usual name.
        std::set<std::string> onHold;
        for (const std::string& name : names) {
            if (const auto hold = Email::Hold::of(name)) {
                onHold.insert(hold->message);
            }
        }
        for (const std::string& name : names) {
            if (const auto hold = Email::Hold::of(name)) {
                if (!std::ranges::binary_search(names, hold->message) && stillThere(name)) {
                    noText.add(name, "recipient file on hold without message text: rm");
                }
            } else if (onHold.contains(name)) {
                ++report_.messages;
            } else if (std::ranges::binary_search(names, name + suffix_)) {
                checkMessage(name, longPaths, unusable);
            } else if (name.ends_with(Email::kTemporaryEnding)) {
                if (untouched(name)) {
                    noFile.add(name, "left over by a crash, of no meaning: rm");
                }
            } else if (isWithoutText(names, name)) {
                noText.add(name, "recipient file without message text: retryq remove");
            } else if (!name.ends_with(suffix_)) {
                noFile.add(name, "no recipient file: never delivered");
            }
        }
    }

    [[nodiscard]] bool isWithoutText(const std::vector<std::string>& names,
                                     const std::string& name) const {
        const std::string message(QueuedMessage::messageOf(queue_, name));
        return !message.empty() && !std::ranges::binary_search(names, message) && stillThere(name);
    }

    // Nobody is just writing it.
    [[nodiscard]] bool untouched(const std::string& name) const {
        struct stat status {};
        return ::stat((report_.directory + name).c_str(), &status) == 0 &&
               status.st_mtime + kSecondsToWrite < std::time(nullptr);
    }

    [[nodiscard]] bool stillThere(const std::string& name) const {
        return ::access((report_.directory + name).c_str(), F_OK) == 0;
    }

    void checkMessage(const std::string& name, Limited& longPaths, Limited& unusable) {
        ++report_.messages;
        if (report_.directory.size() + name.size() >= kPathLimit) {
            longPaths.add(name, "its path has 200 characters or more: never delivered", name,
                          kUntouched);
            return;
        }
        const std::string list = name + suffix_;
        std::string about = list;
        // In the order in which a walk finds out: the lock, the text, the list.
        MessageFault fault = lockFault(report_.directory + list);
        if (fault.text.empty()) {
            fault = textFault(report_.directory + name);
            about = fault.text.empty() ? list : name;
        }
        if (fault.text.empty()) {
            fault = recipientFileFault(report_.directory + list,
                                       queue_ == QueuedMessage::Queue::Deferred);
        }
        if (!fault.text.empty() && stillThere(list)) {
            unusable.add(about, fault.text, name, fault.fate);
        }
    }

    std::vector<std::string> readNames() {
        std::vector<std::string> names;
        const UniqueDirectory directory(::opendir(report_.directory.c_str()));
        if (!directory) {
            warn("cannot be read: " + errorText());
            return names;
        }
        while (const dirent* entry = ::readdir(directory.get())) {
            if (std::string_view(entry->d_name).find_first_not_of('.') != std::string_view::npos) {
                names.emplace_back(entry->d_name);
            }
        }
        std::ranges::sort(names);
        return names;
    }

    QueuedMessage::Queue queue_;
    std::size_t most_;
    std::string suffix_;
    SpoolReport report_;
};

// Takes the head lines of a full-form file apart. Called for files that Recipients refused, or
// whose text may mean something else than it says. A line that is no time counts only when the
// file can be read otherwise.
MessageFault headFault(Email::FdStream& text) {
    constexpr std::array kLines{"line 1 (first try)", "line 2 (latest try)", "line 3 (tries)",
                                "line 4 (sender)"};
    Email::BoundedLineReader reader(text, 63, 63);
    MessageFault odd;
    for (std::size_t i = 0; i < kLines.size(); ++i) {
        const auto item = reader.next();
        const std::string line = kLines.at(i);
        if (item.kind == Email::BoundedLineReader::Kind::Error) {
            return {std::string("cannot be read: ") + std::strerror(text.error()), kRemoved};
        }
        if (item.kind == Email::BoundedLineReader::Kind::End) {
            return {line + " is missing or cut off: the message will be removed", kRemoved};
        }
        DateTime time;
        time.Set(std::string(item.text).c_str());
        if (i < 2 && time.Time == 0) {
            return {line + " is the zero time: the message will be removed", kRemoved};
        }
        if (i == 0 && time.Time < 0) {
            odd = {line + " is no time: the message will be returned", kReturned};
        } else if (i == 1 && time.Time < 0 && odd.text.empty()) {
            odd = {line + " is no time: the message is due at once"};
        }
    }
    return odd;
}

bool endsInLineFeed(Email::FdStream& text) {
    text.clear();
    text.seekg(-1, std::ios::end);
    return text.get() == '\n';
}

} // namespace

SpoolReport checkSpool(const std::string& directory, QueuedMessage::Queue queue, std::size_t most) {
    return SpoolCheck(directory, queue, most).run();
}

MessageFault recipientFileFault(const std::string& path, bool full) {
    Email::FdStream text(path.c_str());
    if (!text.is_open()) {
        return {"cannot be opened: " + std::string(std::strerror(text.error())), kUntouched};
    }
    if (text.peek() == std::istream::traits_type::eof()) {
        return {"is empty: the message will be removed", kRemoved};
    }
    MessageFault head = full ? headFault(text) : MessageFault();
    Recipients recipients;
    if (head.fate == kRemoved) {
        return head;
    }
    if (!recipients.Read(FileName(path.c_str()), full)) {
        return {full ? "line 3 (tries) is no number: the message will be removed"
                     : "has no sender line: the message will be removed",
                kRemoved};
    }
    if (recipients.IsEmpty()) {
        return {"names no recipient: the message will be removed", kRemoved};
    }
    if (!head.text.empty()) {
        return head;
    }
    return {endsInLineFeed(text) ? "" : "its last line is cut off and does not count"};
}

} // namespace Retryq
