// One owner for one file descriptor, which is opened close-on-exec, or for one open directory. Held
// otherwise: only the SMTP socket, a member that other programs know (ExtSocketClass).
#pragma once

#include <dirent.h>
#include <unistd.h>

#include <memory>
#include <utility>

class UniqueFd {
public:
    UniqueFd() noexcept = default;
    explicit UniqueFd(int fd) noexcept : fd_(fd) {}
    ~UniqueFd() { reset(); }

    UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        reset(other.release());
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;

    [[nodiscard]] bool valid() const noexcept { return fd_ >= 0; }
    [[nodiscard]] int get() const noexcept { return fd_; }

    // Gives the descriptor up without closing it.
    [[nodiscard]] int release() noexcept { return std::exchange(fd_, -1); }

    // Closes what is held and takes `fd`. Errors of close are not reported; a writer that must
    // know calls close() itself.
    void reset(int fd = -1) noexcept {
        if (fd_ >= 0) {
            ::close(fd_);
        }
        fd_ = fd;
    }

    // Closes at once. False, with errno, when the system reports an error (delayed write errors).
    [[nodiscard]] bool close() noexcept { return ::close(release()) == 0; }

private:
    int fd_ = -1;
};

struct CloseDirectory {
    void operator()(DIR* directory) const noexcept { ::closedir(directory); }
};
using UniqueDirectory = std::unique_ptr<DIR, CloseDirectory>;
