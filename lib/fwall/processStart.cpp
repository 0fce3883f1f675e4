#include "fwall/processStart.h"

#include <fcntl.h>
#include <unistd.h>

#include <csignal>

void openStandardDescriptors() noexcept {
    int fd = 0;
    do {
        fd = ::open("/dev/null", O_RDWR);
    } while (fd >= 0 && fd <= 2);
    if (fd > 2) {
        ::close(fd);
    }
}

void ignoreWriteSignals() noexcept {
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
}

void closeInheritedDescriptors() noexcept {
    static_cast<void>(::close_range(3, ~0U, 0)); // an old kernel cannot; then they stay
}
