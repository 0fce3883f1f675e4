#include "email/file/FdStream.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <thread>
#include <utility>

namespace Email {
namespace {

constexpr int kRetries = 3;
constexpr std::chrono::milliseconds kRetryPause{100};

// Takes the step, which leaves errno, again while it fails for what may pass in a moment.
template<typename Step>
bool patiently(Step step) noexcept {
    for (int retry = 0; !step(); ++retry) {
        if (retry == kRetries || (errno != EINTR && !isShortage(errno))) {
            return false;
        }
        std::this_thread::sleep_for(kRetryPause);
    }
    return true;
}

} // namespace

bool isShortage(int error) noexcept {
    return error == EMFILE || error == ENFILE || error == ENOMEM;
}

int openPatiently(const char* path, int flags, mode_t mode) noexcept {
    int fd = -1;
    patiently([&]() noexcept {
        fd = ::open(path, flags, mode);
        return fd >= 0;
    });
    return fd;
}

// Not blocking, so that a FIFO planted in the spool cannot stop the run.
OpenedText openText(const char* path) noexcept {
    constexpr int kFlags = O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
    UniqueFd fd;
    struct stat status {};
    const bool opened = patiently([&]() noexcept {
        fd.reset(::open(path, kFlags));
        return fd.valid() && ::fstat(fd.get(), &status) == 0;
    });
    if (!opened) {
        return {UniqueFd(), -1, errno};
    }
    if (!S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode)) {
        return {UniqueFd(), -1, ENXIO};
    }
    return {std::move(fd), status.st_size, 0};
}

bool canBeOpened(const char* path) noexcept {
    constexpr mode_t kForAll = S_IRUSR | S_IRGRP | S_IROTH;
    struct stat status {};
    return ::stat(path, &status) == 0 && S_ISREG(status.st_mode) &&
           (status.st_mode & kForAll) == kForAll;
}

// NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init): the block is filled before it is read.
FdStreambuf::FdStreambuf(int fd, off_t size) noexcept : fd_(fd), size_(size) {}

std::streamsize FdStreambuf::readAt(char* out, std::streamsize n) noexcept {
    ssize_t got = 0;
    do {
        // The descriptor may be a lock's: its own position is left alone.
        got = ::pread(fd_, out, static_cast<std::size_t>(n), offset_);
    } while (got < 0 && errno == EINTR);
    if (got < 0) {
        error_ = errno;
        if (owner_ != nullptr) {
            // A buffer alone can only say that there is no more.
            owner_->setstate(std::ios_base::badbit);
        }
        return 0;
    }
    offset_ += got;
    return got;
}

FdStreambuf::int_type FdStreambuf::underflow() {
    const std::streamsize got = readAt(block_.data(), std::ssize(block_));
    setg(block_.data(), block_.data(), block_.data() + got);
    return got > 0 ? traits_type::to_int_type(block_.front()) : traits_type::eof();
}

std::streamsize FdStreambuf::xsgetn(char* out, std::streamsize n) {
    if (n < std::ssize(block_)) {
        return std::streambuf::xsgetn(out, n);
    }
    std::streamsize done = egptr() - gptr();
    if (done > 0) {
        std::memcpy(out, gptr(), static_cast<std::size_t>(done));
        setg(nullptr, nullptr, nullptr);
    }
    // A file that was read to its size is not asked once more whether it ends there.
    while (done < n && (done == 0 || offset_ != size_)) {
        const std::streamsize got = readAt(out + done, n - done);
        if (got == 0) {
            break;
        }
        done += got;
    }
    return done;
}

FdStreambuf::off_type FdStreambuf::endOffset() noexcept {
    struct stat status {};
    if (size_ < 0 && ::fstat(fd_, &status) == 0) {
        size_ = status.st_size;
    }
    return size_;
}

FdStreambuf::pos_type FdStreambuf::seekoff(off_type off, std::ios_base::seekdir dir,
                                           std::ios_base::openmode which) {
    off_type from = 0;
    if (dir == std::ios_base::cur) {
        from = offset_ - (egptr() - gptr());
    } else if (dir == std::ios_base::end) {
        from = endOffset();
    }
    if (from < 0 || fd_ < 0) {
        return pos_type(off_type(-1));
    }
    return seekpos(pos_type(from + off), which);
}

FdStreambuf::pos_type FdStreambuf::seekpos(pos_type pos, std::ios_base::openmode) {
    const off_type target = pos;
    if (target < 0) {
        return pos_type(off_type(-1));
    }
    const off_type buffered = egptr() - eback();
    if (target >= offset_ - buffered && target <= offset_) {
        setg(eback(), egptr() - (offset_ - target), egptr());
    } else {
        setg(nullptr, nullptr, nullptr);
        offset_ = target;
    }
    return pos;
}

FdStream::FdStream(OpenedText text)
    : std::istream(nullptr), owned_(std::move(text.fd)), buf_(owned_.get(), text.size),
      error_(text.error) {
    rdbuf(&buf_);
    buf_.setOwner(*this);
    if (!is_open()) {
        setstate(std::ios_base::badbit);
    }
}

FdStream::FdStream(int fd, off_t size) : std::istream(nullptr), buf_(fd, size) {
    rdbuf(&buf_);
    buf_.setOwner(*this);
}

} // namespace Email
