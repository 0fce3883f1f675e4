#include "kvorn/segv.h"

#include <execinfo.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <new>

const char* segv_process_name = "";

namespace {

constexpr int kTraceDepth = 25;
constexpr unsigned kWatchdogSeconds = 30;

const char* signalName(int sig) {
    switch (sig) {
    case SIGSEGV:
        return "SEGV";
    case SIGABRT:
        return "ABORT";
    case SIGUSR2:
        return "USR2";
    case SIGPIPE:
        return "PIPE";
    case kTraceRequest:
        return "kvorn_exit";
    default:
        return "SIG (unknown)";
    }
}

bool processGoesOn(int sig) {
    return sig == SIGUSR2 || sig == SIGPIPE || sig == kTraceRequest;
}

// The signal may have come inside the allocator or the system log, whose locks are then never
// released: without a watchdog the process would hold its message for ever. SIGALRM ends it then,
// also one that only a trace was asked of. An alarm that was on its way goes on afterwards.
class Watchdog {
public:
    Watchdog() noexcept : left_(::alarm(0)) {
        struct sigaction end {};
        end.sa_handler = SIG_DFL;
        ::sigaction(SIGALRM, &end, &action_);
        sigset_t alarm;
        ::sigemptyset(&alarm);
        ::sigaddset(&alarm, SIGALRM);
        ::sigprocmask(SIG_UNBLOCK, &alarm, &mask_);
        ::alarm(kWatchdogSeconds);
    }
    ~Watchdog() {
        const unsigned used = kWatchdogSeconds - ::alarm(0);
        ::sigaction(SIGALRM, &action_, nullptr);
        ::sigprocmask(SIG_SETMASK, &mask_, nullptr);
        if (left_ > 0) {
            ::alarm(left_ > used ? left_ - used : 1);
        }
        errno = error_;
    }
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

private:
    int error_ = errno;
    unsigned left_; // seconds
    struct sigaction action_ {};
    sigset_t mask_{};
};

struct Free {
    void operator()(char** lines) const { std::free(static_cast<void*>(lines)); }
};

void sendFrames(int depth, StackTraceFunctor& sink) {
    const std::unique_ptr<void*[]> frames(
        new (std::nothrow) void*[static_cast<std::size_t>(depth)]);
    if (!frames) {
        sink("No memory for stack trace");
        return;
    }
    const int count = ::backtrace(frames.get(), depth);
    const std::unique_ptr<char*, Free> lines(::backtrace_symbols(frames.get(), count));
    if (!lines) {
        sink("No symbols available");
        return;
    }
    for (int i = 0; i < count; ++i) {
        sink(lines.get()[i]);
    }
}

} // namespace

PrintToSyslog::PrintToSyslog(const char* signalName, const char* identity) {
    ::openlog(identity, LOG_PID | LOG_NDELAY, LOG_DAEMON);
    ::syslog(LOG_ERR, "[%s] %s", signalName, m_header);
}

PrintToSyslog::~PrintToSyslog() {
    ::syslog(LOG_ERR, "%s", m_footer);
    ::closelog();
    // Closing forgets the name alone. The process's own lines carry no number, and their facility
    // is the one that a log has which nobody opened.
    ::openlog(nullptr, 0, LOG_USER);
}

void PrintToSyslog::operator()(const char* line) {
    ::syslog(LOG_ERR, "%s", line);
}

void printStackTrace(int depth, const char* /*unused*/, StackTraceFunctor& sink) noexcept {
    try {
        sendFrames(depth, sink);
    } catch (...) {
        sink("EXCEPTION");
    }
}

void segv_handler(int sig) {
    const Watchdog watchdog;
    PrintToSyslog sink(signalName(sig), segv_process_name);
    printStackTrace(kTraceDepth, "null", sink);
    if (!processGoesOn(sig)) {
        std::exit(sig); // the sink lives on: a fatal trace has no footer
    }
}

void install_segv_handler() {
    // The first backtrace of a process loads a library, which a handler must not do.
    std::array<void*, 1> frame{};
    ::backtrace(frame.data(), 1);
    for (const int sig : {SIGSEGV, SIGABRT, SIGUSR2}) {
        struct sigaction action {};
        ::sigaction(sig, nullptr, &action);
        action.sa_handler = segv_handler;
        ::sigaction(sig, &action, nullptr);
    }
}
