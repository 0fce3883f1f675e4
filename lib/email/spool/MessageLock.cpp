#include "email/spool/MessageLock.h"

#include "email/file/FdStream.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>

namespace Email {

namespace {

// O_EXCL without O_CREAT says nothing about a regular file; the gateway's programs open the file
// so. The other additions keep a device or FIFO in the spool from holding the walk.
constexpr int kOpenFlags = O_RDWR | O_EXCL | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;

bool sameFile(const struct stat& a, const struct stat& b) noexcept {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

} // namespace

MessageLock::MessageLock(const std::string& recipientFile) noexcept
    : fd_(openPatiently(recipientFile.c_str(), kOpenFlags)),
      state_(acquire(recipientFile.c_str())) {}

MessageLock::~MessageLock() {
    // Descriptor 0 never belongs to a message: it stands for a failure, and is left open.
    if (fd_.get() == 0) {
        static_cast<void>(fd_.release());
    }
}

MessageLock::State MessageLock::acquire(const char* path) noexcept {
    struct stat opened {};
    const int fd = fd_.get();
    if (fd < 1 || ::fstat(fd, &opened) != 0 || !S_ISREG(opened.st_mode)) {
        error_ = fd < 1 ? errno : EINVAL;
        return State::NotOpened;
    }
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
        return State::Busy;
    }
    // A walker replaces the file by rename: what was opened before that is no message any more,
    // however free its lock is.
    struct stat named {};
    if (::stat(path, &named) != 0 || !sameFile(opened, named)) {
        return State::Busy;
    }
    size_ = named.st_size; // as it is under the lock: it may have grown before
    return State::Held;
}

} // namespace Email
