#include "retryq/FileSystemProbe.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

namespace Retryq {

namespace {

constexpr int kNew = O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
constexpr int kExisting = O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
constexpr std::string_view kText = "retryq check\n";

// No walker looks at it: there is no recipient file of that name. Empty when nothing is drawn.
std::string drawName() {
    unsigned long long number = 0;
    if (::getrandom(&number, sizeof number, 0) != static_cast<ssize_t>(sizeof number)) {
        return {};
    }
    std::array<char, 40> name{};
    std::snprintf(name.data(), name.size(), ".retryq-check.%016llx", number);
    return name.data();
}

bool lock(int fd) noexcept {
    return ::flock(fd, LOCK_EX | LOCK_NB) == 0;
}

bool sameFile(const struct stat& a, const struct stat& b) noexcept {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

} // namespace

FileSystemProbe::FileSystemProbe(const std::string& directory)
    : directory_(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {}

FileSystemProbe::~FileSystemProbe() {
    for (const std::string* name : {&list_, &replacement_}) {
        if (!name->empty()) {
            ::unlinkat(directory_.get(), name->c_str(), 0);
        }
    }
}

std::vector<std::string> FileSystemProbe::run() {
    if (!directory_.valid()) {
        sayError("cannot be opened");
    } else if (!makeFiles()) {
        sayError("no file can be made here");
    } else {
        tryNames();
        tryLocks();
        tryReplacing();
        trySyncs();
    }
    return std::move(faults_);
}

bool FileSystemProbe::makeFiles() {
    const auto make = [this](std::string& name, UniqueFd& fd) {
        const std::string drawn = drawName();
        fd.reset(drawn.empty() ? -1 : ::openat(directory_.get(), drawn.c_str(), kNew, 0600));
        name = fd.valid() ? drawn : "";
        return fd.valid();
    };
    return make(list_, listFd_) && make(replacement_, replacementFd_);
}

// Two hosts that store return mail draw their names apart from each other.
void FileSystemProbe::tryNames() {
    if (UniqueFd(::openat(directory_.get(), list_.c_str(), kNew, 0600)).valid() ||
        errno != EEXIST) {
        say("a name that is taken is given out again: one return mail may overwrite another");
    }
}

// As walkers do it: each opens the list for writing, which some network file systems ask for.
void FileSystemProbe::tryLocks() {
    const UniqueFd other = open(list_, O_RDWR);
    const UniqueFd reader = open(list_, O_RDONLY);
    if (!other.valid() || !reader.valid()) {
        return sayError("a file that is there cannot be opened: no message is ever tried");
    }
    if (!lock(listFd_.get())) {
        return sayError("no file can be locked: no message is ever tried");
    }
    if (lock(other.get())) {
        return say("a lock excludes nobody: walkers may send a message twice");
    }
    if (::flock(listFd_.get(), LOCK_UN) != 0 || !lock(other.get())) {
        return sayError("a lock is not given back: a message may never be tried again");
    }
    if (lock(reader.get()) || errno != EWOULDBLOCK) {
        sayError(
            "a lock wants a descriptor open for writing, as retryer's are: other programs that "
            "open a list for reading cannot lock it");
    }
}

// A walker that opened the old list must see that it is not the one in the directory any more.
void FileSystemProbe::tryReplacing() {
    struct stat old {};
    struct stat fresh {};
    struct stat named {};
    if (::fstat(listFd_.get(), &old) != 0 || ::fstat(replacementFd_.get(), &fresh) != 0 ||
        ::renameat(directory_.get(), replacement_.c_str(), directory_.get(), list_.c_str()) != 0) {
        return sayError(
            "no file can be renamed over another: recipient files stay as they are, and "
            "recipients get a copy at each run");
    }
    const std::string renamed = std::exchange(replacement_, "");
    if (::fstatat(directory_.get(), list_.c_str(), &named, AT_SYMLINK_NOFOLLOW) != 0 ||
        !sameFile(named, fresh) || sameFile(named, old)) {
        say("a file that was renamed over another is not told from it: walkers may use an old "
            "list");
    }
    if (::fstatat(directory_.get(), renamed.c_str(), &named, AT_SYMLINK_NOFOLLOW) == 0) {
        say("a renamed file keeps its old name as well: left-overs gather");
        replacement_ = renamed;
    }
}

void FileSystemProbe::trySyncs() {
    const ssize_t written = ::write(replacementFd_.get(), kText.data(), kText.size());
    if (written != static_cast<ssize_t>(kText.size())) {
        errno = written < 0 ? errno : ENOSPC;
        sayError("a file cannot be written");
    } else if (::fsync(replacementFd_.get()) != 0) {
        sayError("a file cannot be synced: a power cut may tear recipient lists");
    }
    if (::fsync(directory_.get()) != 0) {
        sayError("a new name cannot be synced: a power cut may take return mail");
    }
}

UniqueFd FileSystemProbe::open(const std::string& name, int flags) const noexcept {
    return UniqueFd(::openat(directory_.get(), name.c_str(), flags | kExisting));
}

void FileSystemProbe::say(std::string_view fault) {
    faults_.emplace_back(fault);
}

void FileSystemProbe::sayError(std::string_view fault) {
    const std::string reason = std::strerror(errno);
    faults_.push_back(std::string(fault) + " (" + reason + ")");
}

} // namespace Retryq
