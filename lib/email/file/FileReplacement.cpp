#include "email/file/FileReplacement.h"

#include "email/file/FdStream.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <utility>

namespace Email {
namespace {

constexpr mode_t kPermissions = 07777;
constexpr int kNew = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;

// A file that this program could not have opened for writing is not replaced either.
bool writable(const char* path) noexcept {
    return UniqueFd(openPatiently(path, O_WRONLY | O_CLOEXEC | O_NONBLOCK)).valid();
}

int createFresh(const char* path, mode_t mode, FileReplacement::LeftOver leftOver) noexcept {
    const int fd = openPatiently(path, kNew, mode);
    if (fd >= 0 || errno != EEXIST || leftOver == FileReplacement::LeftOver::Keep ||
        ::unlink(path) != 0) {
        return fd;
    }
    return openPatiently(path, kNew, mode);
}

// As far as the system allows it: another program of the gateway may share the spool by its group.
void copyOwnerAndMode(int fd, const struct stat& model) noexcept {
    struct stat now {};
    if (::fstat(fd, &now) != 0) {
        return;
    }
    const bool sameOwner = now.st_uid == model.st_uid && now.st_gid == model.st_gid;
    const bool chowned = !sameOwner && ::fchown(fd, model.st_uid, model.st_gid) == 0;
    const mode_t mode = model.st_mode & kPermissions;
    if (chowned || (now.st_mode & kPermissions) != mode) {
        static_cast<void>(::fchmod(fd, mode));
    }
}

int openInPlace(const char* path, mode_t mode) noexcept {
    return ::open(path, O_WRONLY | O_CREAT | O_CLOEXEC | O_NONBLOCK, mode);
}

bool takesNoNewNames(int error) noexcept {
    return error == EACCES || error == EPERM || error == EROFS;
}

// A device has nothing that could be synced or cut, which is no failure.
bool cut(int fd, std::size_t size) noexcept {
    return ::ftruncate(fd, static_cast<off_t>(size)) == 0 || errno == EINVAL;
}

bool sync(int fd) noexcept {
    return ::fsync(fd) == 0 || errno == EINVAL || errno == EROFS;
}

} // namespace

FileReplacement::FileReplacement(std::string path, mode_t mode, LeftOver leftOver, InPlace inPlace)
    : target_(std::move(path)) {
    struct stat old {};
    const bool exists = ::stat(target_.c_str(), &old) == 0;
    if (!exists && errno != ENOENT) {
        return;
    }
    if (exists && !S_ISREG(old.st_mode) && inPlace == InPlace::Never) {
        errno = EINVAL;
        return;
    }
    if (exists && !S_ISREG(old.st_mode)) {
        // What is no file (a device, say) keeps its name and is written as it stands.
        inPlace_ = EEXIST;
        fd_.reset(openInPlace(target_.c_str(), mode));
        return;
    }
    if (exists && !writable(target_.c_str())) {
        return;
    }
    temporary_ = target_ + kTemporaryEnding;
    fd_.reset(
        createFresh(temporary_.c_str(), exists ? old.st_mode & kPermissions : mode, leftOver));
    // Where no name may be made, a file that is there may still be written.
    if (!fd_.valid() && takesNoNewNames(errno) && inPlace == InPlace::Allowed) {
        inPlace_ = errno;
        temporary_.clear();
        fd_.reset(openInPlace(target_.c_str(), mode));
    } else if (fd_.valid() && exists) {
        copyOwnerAndMode(fd_.get(), old);
    }
}

FileReplacement::~FileReplacement() {
    if (fd_.valid()) {
        discard();
    }
}

void FileReplacement::discard() noexcept {
    const int error = errno;
    fd_.reset();
    if (!temporary_.empty()) {
        ::unlink(temporary_.c_str());
    }
    errno = error;
}

// Blank bytes and no posix_fallocate(3): where blocks are assigned late, as usual, written ones are
// promised at once and cost nothing on disc when they are not needed, which is almost always.
bool FileReplacement::reserve(std::size_t size) noexcept {
    static constexpr std::array<char, 16384> kBlank{};
    for (std::size_t done = 0; done < size;) {
        const std::size_t length = std::min(size - done, kBlank.size());
        const ssize_t n = ::pwrite(fd_.get(), kBlank.data(), length, static_cast<off_t>(done));
        if (n < 0 && errno != EINTR) {
            return false;
        }
        done += static_cast<std::size_t>(std::max<ssize_t>(n, 0));
    }
    reserved_ = true;
    return true;
}

// Cut behind the new bytes and not before them: on a full disc the room must not be let go of.
bool FileReplacement::write(std::string_view bytes) noexcept {
    const bool longer = reserved_ || inPlace_ != 0;
    return writeAll(fd_.get(), bytes) && (!longer || cut(fd_.get(), bytes.size())) &&
           sync(fd_.get());
}

bool FileReplacement::release(const UniqueFd* lock) noexcept {
    // Locked before it gets the name: nobody can find the new list unlocked.
    return lock == nullptr ? fd_.close() : ::flock(fd_.get(), LOCK_EX | LOCK_NB) == 0;
}

bool FileReplacement::commit(std::string_view bytes, UniqueFd* lock) noexcept {
    const bool written = write(bytes) && release(lock);
    if (!written || (inPlace_ == 0 && ::rename(temporary_.c_str(), target_.c_str()) != 0)) {
        discard();
        return false;
    }
    if (lock != nullptr) {
        // The caller's lock moves on to the new file; the old one is nobody's any more.
        *lock = std::move(fd_);
    }
    return true;
}

bool overwrite(const char* path, std::string_view bytes) noexcept {
    UniqueFd fd(::open(path, O_WRONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
    return fd.valid() && writeAll(fd.get(), bytes) && cut(fd.get(), bytes.size()) &&
           sync(fd.get()) && fd.close();
}

bool writeAll(int fd, std::string_view bytes) noexcept {
    while (!bytes.empty()) {
        const ssize_t n = ::write(fd, bytes.data(), bytes.size());
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            // A write of nothing would be tried for ever.
            errno = n == 0 ? EIO : errno;
            return false;
        }
        bytes.remove_prefix(static_cast<std::size_t>(n));
    }
    return true;
}

bool syncDirectory(const std::string& path) {
    const std::size_t end = path.rfind('/');
    const std::string directory = end == std::string::npos ? "." : path.substr(0, end + 1);
    const UniqueFd fd(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return fd.valid() && sync(fd.get());
}

} // namespace Email
