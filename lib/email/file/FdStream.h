// An input stream over a close-on-exec descriptor, its own or a caller's: large reads, errors as
// stream states, nothing thrown.
#pragma once

#include "fwall/UniqueFd.h"

#include <sys/types.h>

#include <array>
#include <istream>
#include <streambuf>

namespace Email {

// A file opened for reading, or why it could not be.
struct OpenedText {
    UniqueFd fd;
    off_t size = -1; // bytes when it was opened, -1 when unknown
    int error = 0;   // errno; 0 when it is open
};

// True for the errors that say nothing about the file: this host is out of descriptors or memory.
[[nodiscard]] bool isShortage(int error) noexcept;

// open(2), tried three times more, 100 ms apart, after EINTR and a shortage. -1 with errno.
[[nodiscard]] int openPatiently(const char* path, int flags, mode_t mode = 0) noexcept;

// Opens a regular file or a directory (whose reading then fails with EISDIR). A FIFO, socket or
// device is refused with ENXIO and never waited for. Opened patiently.
OpenedText openText(const char* path) noexcept;

// True for a regular file that its permissions let everybody read: openText() would open it. One
// call in place of three, for those who need not read it now. False may also mean that this is not
// known; opening tells then.
[[nodiscard]] bool canBeOpened(const char* path) noexcept;

// Reads at offsets of its own, from 0 on: the descriptor must be seekable, and seeking makes no
// system call. The descriptor stays the caller's.
class FdStreambuf : public std::streambuf {
public:
    explicit FdStreambuf(int fd, off_t size = -1) noexcept;

    // errno of the last failed read, 0 without one. A failed read looks like the end of the file
    // to the stream; FdStream turns it into the bad state.
    [[nodiscard]] int error() const noexcept { return error_; }
    [[nodiscard]] int fd() const noexcept { return fd_; }

    // The stream that goes bad when a read fails.
    void setOwner(std::ios& owner) noexcept { owner_ = &owner; }

protected:
    int_type underflow() override;
    // From the buffer's size on, bytes go straight to `out`. A short count that reaches the size
    // known at opening is the end of the file; the system is not asked again.
    std::streamsize xsgetn(char* out, std::streamsize n) override;
    // The end is where it was when the file was opened.
    pos_type seekoff(off_type off, std::ios_base::seekdir dir,
                     std::ios_base::openmode which) override;
    pos_type seekpos(pos_type pos, std::ios_base::openmode which) override;

private:
    std::streamsize readAt(char* out, std::streamsize n) noexcept;
    off_type endOffset() noexcept;

    int fd_;
    off_t size_;
    off_t offset_ = 0; // of the byte behind the buffered ones
    int error_ = 0;
    std::ios* owner_ = nullptr;
    std::array<char, 4096>
        block_; // filled by underflow() only: clearing it took longer than the rest
};

class FdStream : public std::istream {
public:
    // Takes the file over. A file that is not open gives a bad stream.
    explicit FdStream(OpenedText text);
    explicit FdStream(const char* path) : FdStream(openText(path)) {}
    // Reads a file of `size` bytes that the caller has open and keeps open.
    FdStream(int fd, off_t size);

    [[nodiscard]] bool is_open() const noexcept { return buf_.fd() >= 0; }
    // errno of the failed opening or reading, 0 without one.
    [[nodiscard]] int error() const noexcept { return error_ != 0 ? error_ : buf_.error(); }

private:
    UniqueFd owned_;
    FdStreambuf buf_;
    int error_ = 0;
};

} // namespace Email
