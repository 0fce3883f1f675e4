// A directory name that walks its entries, handing out a new name for each.
#pragma once

#include "email/base/Utils.h"
#include "email/file/FileName.h"
#include "fwall/UniqueFd.h"

#include <memory>

enum filetype {
    nofile = 0,
    directory = 1000,
    textfile = 1001,
    binaryfile = 1002,
    unknownfile = 1003
};

struct FileInfo {
    filetype ft = nofile;
    DateTime created;  // status-change time
    DateTime accessed; // access time
};

class FileIterator : public FileName {
public:
    // The same names as FileName's; the directory is opened when the first entry is asked for.
    FileIterator();
    explicit FileIterator(bool temporary);
    explicit FileIterator(const char* path);
    FileIterator(const char* parent, const char* file);
    FileIterator(const FileName& parent, const FileName& leaf, const char* suffix);
    FileIterator(const FileName& name, const char* suffix);
    ~FileIterator() override = default;

    FileIterator(const FileIterator&) = delete;
    // Takes the other's name and begins anew.
    virtual FileIterator& operator=(const FileIterator& other);
    using FileName::operator=;

    // The test an entry must pass. This one rejects names made of dots only.
    virtual bool filter(const char* name, filetype type) const;

    // The next accepted entry in the system's order, or null at the end (the directory is closed
    // then) or when the directory cannot be opened. `info` describes the directory itself: every
    // entry gets the same type and times.
    std::unique_ptr<FileIterator> Next(FileInfo& info);

    // The same for a caller that asks nothing about the directory, which costs a system call less
    // for each entry.
    std::unique_ptr<FileIterator> Next();
    // Why the last Next() gave nothing: errno of a directory that cannot be opened or read any
    // further, 0 at the end.
    [[nodiscard]] int error() const noexcept { return error_; }

    // Begins anew: the directory is opened again when the next entry is asked for.
    void Reset() noexcept;

    // Closes the directory; there are no more entries until Reset().
    void close() noexcept;

private:
    DIR* stream() noexcept;
    const char* nextName();
    const dirent* read(DIR* dir) noexcept;

    UniqueDirectory currentDir;
    filetype type_ = unknownfile; // of the open directory
    int error_ = 0;
    bool unopened_ = true;
};
