#include "email/file/FileName.h"

#include "email/base/Assert.h"
#include "email/file/FileReplacement.h"
#include "fwall/UniqueFd.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <string_view>
#include <sys/random.h>
#include <sys/stat.h>

namespace {

constexpr std::string_view kTemporaryPrefix = "/tmp/file";
constexpr std::size_t kRandomLetters = 6;
static_assert(kTemporaryPrefix.size() + kRandomLetters < L_tmpnam);
constexpr std::size_t kCopyBlock = 16384;
constexpr mode_t kCopyMode = 0664; // before the umask

const char* checked(const char* text, const char* condition, std::uint32_t line) {
    if (text == nullptr) {
        assert_failure(condition, "lib/email/FileName", line);
    }
    return text;
}

bool refuse(char* buf, unsigned size) noexcept {
    if (size > 0) {
        buf[0] = '\0';
    }
    return false;
}

std::string_view afterLastDelimiter(std::string_view path) noexcept {
    return path.substr(path.rfind(FileName::delimiter) + 1);
}

std::string randomLetters() {
    constexpr std::string_view kLetters =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
    std::array<unsigned char, kRandomLetters> random{};
    if (::getentropy(random.data(), random.size()) != 0) { // the name need only be a new one
        timespec now{};
        ::clock_gettime(CLOCK_MONOTONIC, &now);
        std::memcpy(random.data(), &now.tv_nsec, std::min(random.size(), sizeof now.tv_nsec));
    }
    std::string letters;
    for (const unsigned char byte : random) {
        letters += kLetters[byte % kLetters.size()];
    }
    return letters;
}

bool exists(const std::string& path) noexcept {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0;
}

std::string freshTemporaryName() {
    std::string path;
    do {
        path = std::string(kTemporaryPrefix) + randomLetters();
    } while (exists(path));
    return path;
}

bool copyBytes(int from, int to) noexcept {
    std::array<char, kCopyBlock> block{};
    for (;;) {
        const ssize_t n = ::read(from, block.data(), block.size());
        if (n == 0) {
            return true;
        }
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0 || !Email::writeAll(to, {block.data(), static_cast<std::size_t>(n)})) {
            return false;
        }
    }
}

// A link that somebody planted is replaced, as by a rename; the file behind it is left alone.
int openTarget(const char* target) noexcept {
    constexpr int kFlags = O_RDWR | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK;
    const int fd = ::open(target, kFlags, kCopyMode);
    if (fd >= 0 || errno != ELOOP || ::unlink(target) != 0) {
        return fd;
    }
    return ::open(target, kFlags | O_EXCL, kCopyMode);
}

// The bytes are on disc before this returns true: the caller deletes the source.
bool copyFile(const char* source, const char* target) noexcept {
    const UniqueFd from(::open(source, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!from.valid()) {
        return false;
    }
    UniqueFd to(openTarget(target));
    if (!to.valid()) {
        return false;
    }
    const bool copied = copyBytes(from.get(), to.get()) && ::fsync(to.get()) == 0;
    return to.close() && copied;
}

} // namespace

const FileName FileName::empty{""};

FileName::FileName(bool temporary) : pathname(temporary ? freshTemporaryName() : std::string()) {
    pathlength = static_cast<unsigned>(pathname.size());
    leafname = pathname.size() - afterLastDelimiter(pathname).size();
}

FileName::FileName(const char* path) : pathname(checked(path, "file", __LINE__)) {
    pathlength = static_cast<unsigned>(pathname.size());
    if (!pathname.ends_with(delimiter)) {
        leafname = pathname.size() - afterLastDelimiter(pathname).size();
    }
}

FileName::FileName(const char* directory, const char* file) {
    const std::string_view leaf = afterLastDelimiter(checked(file, "file", __LINE__));
    const std::string_view parent = checked(directory, "directory", __LINE__);
    pathname.reserve(parent.size() + 1 + leaf.size());
    pathname.append(parent);
    if (!parent.ends_with(delimiter)) {
        pathname += delimiter;
    }
    if (!leaf.empty()) {
        leafname = pathname.size();
    }
    pathname.append(leaf);
    pathlength = static_cast<unsigned>(pathname.size());
}

FileName::FileName(const FileName& directory, const FileName& leaf, const char* suffix) {
    const std::string_view tail = suffix == nullptr ? "" : suffix;
    pathname.reserve(directory.pathname.size() + 1 + leaf.LeafLength() + tail.size());
    pathname.append(directory.pathname);
    if (directory.leafname != kNoLeaf) {
        pathname += delimiter;
    }
    leafname = pathname.size();
    if (leaf.leafname != kNoLeaf) {
        pathname.append(leaf.pathname, leaf.leafname);
    }
    pathname.append(tail);
    pathlength = static_cast<unsigned>(pathname.size());
    if (leafname == pathname.size()) {
        leafname = kNoLeaf;
    }
}

FileName::FileName(const FileName& name, const char* suffix) : leafname(name.leafname) {
    const std::string_view tail = suffix == nullptr ? "" : suffix;
    pathname.reserve(name.pathname.size() + tail.size());
    pathname.append(name.pathname).append(tail);
    pathlength = static_cast<unsigned>(pathname.size());
}

FileName& FileName::operator=(const FileName& other) = default;

void FileName::Up() {
    if (leafname != kNoLeaf) {
        pathname.resize(leafname);
        pathlength = static_cast<unsigned>(leafname);
        leafname = kNoLeaf;
        return;
    }
    if (pathlength == 0) {
        return;
    }
    pathname.resize(pathlength - 1);
    const std::size_t last = pathname.rfind(delimiter);
    if (last == 0) {
        // "/tmp/" becomes "/tmp" but keeps the length 5: the gateway's other programs rely on the
        // length they get here.
        return;
    }
    pathname.resize(last == std::string::npos ? 0 : last + 1);
    pathlength = static_cast<unsigned>(pathname.size());
}

const char* FileName::operator()() const noexcept {
    return pathname.c_str();
}

unsigned FileName::DirLength() const noexcept {
    return leafname == kNoLeaf ? pathlength : static_cast<unsigned>(leafname);
}

unsigned FileName::LeafLength() const noexcept {
    return pathlength - DirLength();
}

bool FileName::copyOut(char* buf, unsigned size, std::size_t from, unsigned length) const noexcept {
    if (size <= length) {
        return refuse(buf, size);
    }
    const std::size_t copied = pathname.copy(buf, length, from);
    buf[copied] = '\0';
    return true;
}

bool FileName::Pathname(char* buf, unsigned size) const noexcept {
    return copyOut(buf, size, 0, pathlength);
}

bool FileName::Directory(char* buf, unsigned size) const noexcept {
    return copyOut(buf, size, 0, DirLength());
}

bool FileName::Leafname(char* buf, unsigned size) const noexcept {
    return leafname == kNoLeaf ? refuse(buf, size) : copyOut(buf, size, leafname, LeafLength());
}

bool FileName::open(std::fstream& stream, std::ios_base::openmode mode, mode_t permissions) const {
    if ((mode & std::ios_base::out) != 0) {
        // A stream alone would create with 0666, and with "in|out" not at all.
        const UniqueFd created(
            ::open(pathname.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, permissions));
    }
    stream.open(pathname, mode);
    return !stream.fail();
}

bool FileName::Delete() const noexcept {
    return std::remove(pathname.c_str()) == 0;
}

bool FileName::MoveTo(const FileName& target) const {
    if (std::rename(pathname.c_str(), target.pathname.c_str()) == 0) {
        return true;
    }
    // The source goes also when the copy failed; the walk must not meet the message again.
    const bool copied = copyFile(pathname.c_str(), target.pathname.c_str());
    const int error = errno; // of the copy
    static_cast<void>(Delete());
    errno = error;
    return copied;
}
