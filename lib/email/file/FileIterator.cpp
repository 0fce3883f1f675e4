#include "email/file/FileIterator.h"

#include <cerrno>
#include <cstring>
#include <sys/stat.h>

namespace {

// By bits, not by value, and of the directory that is walked, not of the entry.
filetype typeOf(mode_t mode) noexcept {
    if ((mode & S_IFDIR) != 0) {
        return directory;
    }
    if ((mode & S_IFCHR) != 0) {
        return textfile;
    }
    return (mode & S_IFREG) != 0 ? binaryfile : unknownfile;
}

} // namespace

FileIterator::FileIterator() : FileName(false) {}

FileIterator::FileIterator(bool temporary) : FileName(temporary) {}

FileIterator::FileIterator(const char* path) : FileName(path) {}

FileIterator::FileIterator(const char* parent, const char* file) : FileName(parent, file) {}

FileIterator::FileIterator(const FileName& parent, const FileName& leaf, const char* suffix)
    : FileName(parent, leaf, suffix) {}

FileIterator::FileIterator(const FileName& name, const char* suffix) : FileName(name, suffix) {}

// What the other one has read stays its own; this one begins anew.
// cppcheck-suppress operatorEqVarError
FileIterator& FileIterator::operator=(const FileIterator& other) {
    FileName::operator=(other);
    Reset();
    return *this;
}

bool FileIterator::filter(const char* name, filetype) const {
    return name[std::strspn(name, ".")] != '\0';
}

DIR* FileIterator::stream() noexcept {
    if (unopened_) {
        struct stat status {};
        unopened_ = false;
        currentDir.reset(::opendir(pathname.c_str()));
        error_ = currentDir ? 0 : errno;
        const bool known = currentDir && ::fstat(::dirfd(currentDir.get()), &status) == 0;
        type_ = known ? typeOf(status.st_mode) : unknownfile;
    }
    return currentDir.get();
}

const dirent* FileIterator::read(DIR* dir) noexcept {
    errno = 0; // nothing else tells an error from the end
    const dirent* entry = ::readdir(dir);
    error_ = entry != nullptr ? 0 : errno;
    return entry;
}

// Null at the end, with the directory closed.
const char* FileIterator::nextName() {
    DIR* const dir = stream();
    if (dir == nullptr) {
        return nullptr;
    }
    while (const dirent* entry = read(dir)) {
        if (filter(entry->d_name, type_)) {
            return entry->d_name;
        }
    }
    close();
    return nullptr;
}

std::unique_ptr<FileIterator> FileIterator::Next(FileInfo& info) {
    const char* const name = nextName();
    if (name == nullptr) {
        return nullptr;
    }
    struct stat status {};
    // Of the directory and not of the entry, as its type is.
    static_cast<void>(::fstat(::dirfd(currentDir.get()), &status));
    info.created = DateTime(status.st_ctime);
    info.accessed = DateTime(status.st_atime);
    info.ft = type_;
    return std::make_unique<FileIterator>(pathname.c_str(), name);
}

std::unique_ptr<FileIterator> FileIterator::Next() {
    const char* const name = nextName();
    return name == nullptr ? nullptr : std::make_unique<FileIterator>(pathname.c_str(), name);
}

void FileIterator::Reset() noexcept {
    currentDir.reset();
    unopened_ = true;
}

void FileIterator::close() noexcept {
    currentDir.reset();
    unopened_ = false;
}
