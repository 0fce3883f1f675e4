// Durable replacement of a small file: a reader sees the old bytes or the new ones, whole, at
// every moment and after any crash.
#pragma once

#include "fwall/UniqueFd.h"

#include <sys/types.h>

#include <string>
#include <string_view>

namespace Email {

class FileReplacement {
public:
    // Opens "<path>~" beside the target, with `mode` before the umask for a new target and with the
    // mode and (where allowed) the owner of an existing one. A target that is neither absent nor a
    // regular file, or whose directory takes no new names, is written in place instead. open() is
    // false and errno tells why when that fails; the target is untouched then.
    FileReplacement(std::string path, mode_t mode);

    // Gives up what was written and removes the temporary file, unless commit() succeeded.
    ~FileReplacement();

    FileReplacement(const FileReplacement&) = delete;
    FileReplacement& operator=(const FileReplacement&) = delete;

    [[nodiscard]] bool open() const noexcept { return fd_.valid(); }

    // Writes the bytes, syncs, closes and renames over the target. False, with errno, leaves the
    // target as it was (a target written in place may be left partly written). For a new name the
    // directory is not synced: syncDirectory() does that when the name itself must survive.
    [[nodiscard]] bool commit(std::string_view bytes) noexcept;

private:
    void discard() noexcept;

    std::string target_;
    std::string temporary_; // empty when the target is written in place
    UniqueFd fd_;
};

// Writes all of `bytes`, going on after EINTR and short writes. False with errno.
[[nodiscard]] bool writeAll(int fd, std::string_view bytes) noexcept;

// Syncs the directory that holds `path`, so that a new name in it survives a power cut.
[[nodiscard]] bool syncDirectory(const std::string& path);

} // namespace Email
