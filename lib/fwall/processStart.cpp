#include "fwall/processStart.h"

#include "fwall/UniqueFd.h"

#include <fcntl.h>
#include <unistd.h>

#include <csignal>

void openStandardDescriptors() noexcept {
    UniqueFd fd;
    do {
        static_cast<void>(fd.release()); // 0 to 2 stay open
        fd.reset(::open("/dev/null", O_RDWR));
    } while (fd.valid() && fd.get() <= 2);
}

void takeSignals() noexcept {
    sigset_t all;
    ::sigfillset(&all);
    ::sigprocmask(SIG_UNBLOCK, &all, nullptr);
    std::signal(SIGCHLD, SIG_DFL);
}

void ignoreWriteSignals() noexcept {
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
}

void closeInheritedDescriptors() noexcept {
    static_cast<void>(::close_range(3, ~0U, 0)); // an old kernel cannot; then they stay
}
