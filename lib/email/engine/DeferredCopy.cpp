#include "email/engine/DeferredCopy.h"

#include "email/file/FileReplacement.h"
#include "email/site/mailscanGlobals.h"
#include "fwall/UniqueFd.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <istream>

namespace Email {

namespace {

constexpr mode_t kSpoolMode = 0664;
constexpr std::size_t kBlockSize = 16384;

std::string drawName() {
    const FileName temporary(true);
    return std::string("rjct") + (temporary() + temporary.DirLength());
}

bool inDeferredQueue(const std::string& name) {
    const FileName text(mailscanGlobals::deferred_mail_path(), name.c_str());
    const FileName rcpts(text, ".rmd");
    return ::access(text(), F_OK) == 0 || ::access(rcpts(), F_OK) == 0;
}

bool copyAll(std::istream& text, int fd) {
    std::array<char, kBlockSize> block{};
    text.clear();
    text.seekg(0);
    do {
        text.read(block.data(), block.size());
        if (!writeAll(fd, {block.data(), static_cast<std::size_t>(text.gcount())})) {
            return false;
        }
    } while (text);
    if (text.bad() || !text.eof()) {
        errno = EIO;
        return false;
    }
    return ::fsync(fd) == 0;
}

} // namespace

std::string newReturnName() {
    std::string name = drawName();
    for (int draw = 1; draw < kNameDraws && inDeferredQueue(name); ++draw) {
        name = drawName();
    }
    return name;
}

bool storeText(std::istream& text, const FileName& file) {
    UniqueFd fd(::open(file(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kSpoolMode));
    if (!fd.valid()) {
        return false;
    }
    if (copyAll(text, fd.get()) && fd.close()) {
        return true;
    }
    const int error = errno;
    file.Delete();
    errno = error;
    return false;
}

} // namespace Email
