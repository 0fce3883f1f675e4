// Durable replacement of a small file: a reader sees the old bytes or the new ones, whole, at
// every moment and after any crash.
#pragma once

#include "fwall/UniqueFd.h"

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace Email {

class FileReplacement {
public:
    // What stands under the temporary name already: usually the left-over of a run that was killed.
    enum class LeftOver { Remove, Keep };

    // Whether a target that is no regular file, or whose directory takes no new names, is written
    // in place. Never is for a program with more rights than the directory's owner, who could lead
    // it to a device by a link.
    enum class InPlace { Allowed, Never };

    // Opens "<path>~" beside the target, with `mode` before the umask for a new target and with the
    // mode and (where allowed) the owner of an existing one; a symbolic link is replaced by a file
    // of its own. open() is false and errno tells why when that fails (EEXIST: a left-over to be
    // kept; EINVAL: a target that would be written in place); the target is untouched then.
    FileReplacement(std::string path, mode_t mode, LeftOver leftOver = LeftOver::Remove,
                    InPlace inPlace = InPlace::Allowed);

    // Gives up what was written and removes the temporary file, unless commit() succeeded.
    ~FileReplacement();

    FileReplacement(const FileReplacement&) = delete;
    FileReplacement& operator=(const FileReplacement&) = delete;

    [[nodiscard]] bool open() const noexcept { return fd_.valid(); }
    // errno of the temporary file that could not be made where the target is written in place.
    [[nodiscard]] int inPlace() const noexcept { return inPlace_; }

    // Takes the room for `size` bytes on the disc now, so that a commit() of no more does not fail
    // for want of it. False with errno.
    [[nodiscard]] bool reserve(std::size_t size) noexcept;

    // Writes the bytes, syncs, closes and renames over the target. False, with errno, leaves the
    // target as it was (a target written in place may be left partly written). For a new name the
    // directory is not synced: syncDirectory() does that when the name itself must survive.
    // With `lock` the new file is locked (flock) before it gets its name, and is left open there.
    [[nodiscard]] bool commit(std::string_view bytes, UniqueFd* lock = nullptr) noexcept;

private:
    [[nodiscard]] bool write(std::string_view bytes) noexcept;
    [[nodiscard]] bool release(const UniqueFd* lock) noexcept;
    void discard() noexcept;

    std::string target_;
    std::string temporary_; // empty when the target is written in place
    UniqueFd fd_;
    int inPlace_ = 0;
    bool reserved_ = false;
};

// What a temporary name adds to its target's.
inline constexpr char kTemporaryEnding = '~';

// Writes the bytes over the beginning of an existing regular file and cuts it behind them: needs
// neither a new name nor, when the file becomes no longer, room on the disc. False with errno.
[[nodiscard]] bool overwrite(const char* path, std::string_view bytes) noexcept;

// Writes all of `bytes`, going on after EINTR and short writes. False with errno.
[[nodiscard]] bool writeAll(int fd, std::string_view bytes) noexcept;

// Syncs the directory that holds `path`, so that a new name in it survives a power cut.
[[nodiscard]] bool syncDirectory(const std::string& path);

} // namespace Email
