// One path text that knows where its directory ends and its leaf (last component) begins. Every
// file of the spool is named through it.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <fstream>
#include <string>

class FileName {
public:
    static constexpr char delimiter = '/';
    static const FileName empty;

    // True: a fresh name below /tmp that does not exist yet ("/tmp/fileXXXXXX"). False: the empty
    // name.
    explicit FileName(bool temporary);

    // A copy of the text. There is no leaf when it ends in "/".
    explicit FileName(const char* path);

    // directory + "/" unless it ends in one + the part of `file` after its last "/".
    FileName(const char* directory, const char* file);

    // directory + "/" if it has a leaf part + the leaf of `leaf` + `suffix` (may be null).
    FileName(const FileName& directory, const FileName& leaf, const char* suffix);

    // The name with the suffix appended; the leaf keeps its place.
    FileName(const FileName& name, const char* suffix);

    FileName(const FileName&) = default;
    virtual FileName& operator=(const FileName& other);
    virtual ~FileName() = default;

    // One step up: the leaf goes, or the last directory.
    virtual void Up();

    // The whole path text.
    virtual const char* operator()() const noexcept;

    [[nodiscard]] unsigned Length() const noexcept { return pathlength; }
    [[nodiscard]] unsigned DirLength() const noexcept;
    [[nodiscard]] unsigned LeafLength() const noexcept;

    // Copies with the terminator. False, and an empty text when there is any room, when the buffer
    // is too small (or there is no leaf).
    bool Pathname(char* buf, unsigned size) const noexcept;
    bool Directory(char* buf, unsigned size) const noexcept;
    bool Leafname(char* buf, unsigned size) const noexcept;

    // Opens the stream on the name. Mode "in" never creates; a mode with "out" creates a missing
    // file with `permissions` before the umask. True unless the stream failed.
    bool open(std::fstream& stream, std::ios_base::openmode mode, mode_t permissions) const;

    // Removes the file (or the empty directory); true on success, else errno tells why.
    bool Delete() const noexcept;

    // Renames to the target; copies and deletes the source where that cannot be done. The source
    // is deleted even when the copy failed. True when the target holds the file, else errno tells
    // why it does not.
    bool MoveTo(const FileName& target) const;

protected:
    bool copyOut(char* buf, unsigned size, std::size_t from, unsigned length) const noexcept;

    static constexpr std::size_t kNoLeaf = static_cast<std::size_t>(-1);

    std::string pathname;
    unsigned pathlength = 0;
    std::size_t leafname = kNoLeaf; // offset of the leaf in pathname, kNoLeaf without one
};
