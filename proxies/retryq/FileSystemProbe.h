// Tries in a spool directory what the gateway's promises about mail rest on: names that only one
// program gets, locks that exclude, files that are replaced whole, syncs. A file system of this
// host does all of it; one that several hosts share may not, or only with the right mount options.
//
// It sees this host alone. That a lock taken here excludes another host is tried with two of them
// (docs/operations.md).
#pragma once

#include "fwall/UniqueFd.h"

#include <string>
#include <string_view>
#include <vector>

namespace Retryq {

class FileSystemProbe {
public:
    // Makes nothing yet. The directory is opened once: what happens to its path later does not
    // lead the probe elsewhere.
    explicit FileSystemProbe(const std::string& directory);

    // Removes its two files, however far run() came.
    ~FileSystemProbe();

    FileSystemProbe(const FileSystemProbe&) = delete;
    FileSystemProbe& operator=(const FileSystemProbe&) = delete;

    // What would not hold here, one line each with the system's error; empty when all does. Files
    // of other programs are neither opened nor replaced: the probe's have names drawn at random,
    // and are made new or not at all. Call it once.
    [[nodiscard]] std::vector<std::string> run();

private:
    [[nodiscard]] bool makeFiles();
    void tryNames();
    void tryLocks();
    void tryReplacing();
    void trySyncs();

    [[nodiscard]] UniqueFd open(const std::string& name, int flags) const noexcept;
    void say(std::string_view fault);
    void sayError(std::string_view fault);

    UniqueFd directory_;
    std::string list_;        // the name that is locked and replaced, empty until it was made
    std::string replacement_; // the name that is renamed over it, likewise
    UniqueFd listFd_;
    UniqueFd replacementFd_;
    std::vector<std::string> faults_;
};

} // namespace Retryq
