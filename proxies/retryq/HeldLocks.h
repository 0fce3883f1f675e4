// Which files of one file system somebody holds locked, as the kernel tells it. A listing must not
// try a lock to find out: for that moment a walker would take the message for held and pass it over
// until the next run. Locks of processes that this one cannot see (in other containers) are not
// told.
#pragma once

#include <sys/types.h>

#include <istream>
#include <string>
#include <vector>

namespace Retryq {

class HeldLocks {
public:
    // Reads /proc/locks once: the exclusive whole-file locks on the file system of the open
    // directory. Nothing is held when it cannot be read.
    static HeldLocks on(int directory);

    // The same from text in the form of /proc/locks, for the device "major:minor" (hexadecimal,
    // two digits at least each).
    static HeldLocks parse(std::istream& locks, const std::string& device);

    [[nodiscard]] bool none() const noexcept { return locks_.empty(); }
    [[nodiscard]] bool holds(ino_t inode) const noexcept;
    // The process that took the lock; 0 when nobody is known to hold it. Its children may have it
    // as well.
    [[nodiscard]] pid_t holder(ino_t inode) const noexcept;

    struct Lock {
        ino_t inode;
        pid_t holder;
    };
    // In the order of the inodes.
    [[nodiscard]] const std::vector<Lock>& all() const noexcept { return locks_; }

private:
    std::vector<Lock> locks_;
};

} // namespace Retryq
