#include "email/site/LookUpLimit.h"

#include <netdb.h>
#include <netinet/in.h>
#include <resolv.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>

namespace Email {

namespace {

// UDP may take this long. A wait that begins before the time is up goes on to its own end, which is
// within kLongest then.
constexpr int kDatagramSeconds = 40;
// After the time is up, another TCP connection is closed this often.
constexpr long kRepeatNs = 100'000'000;

// Read by the handler only while a question is asked.
constinit volatile bool asking = false;
constinit res_state resolver = nullptr;

// No further round of name servers, and no further wait of this one but for a second each. A
// connection that is still being made ends as well: without SA_RESTART the signal interrupts it.
void timeIsUp(int /*signal*/) noexcept {
    if (!asking) {
        return;
    }
    const int saved = errno;
    resolver->retry = 0;
    resolver->retrans = 0;
    if (resolver->_vcsock >= 0) {
        ::shutdown(resolver->_vcsock, SHUT_RDWR);
    }
    errno = saved;
}

int timerSignal() noexcept {
    return SIGRTMIN;
}

struct Timer {
    timer_t id{};
    bool made = false;
    pid_t process = 0; // the one that it was made for: a child does not inherit it
};

// A starter's mask is inherited, and this host's own name is looked up before main() begins.
void unblockTimerSignal() noexcept {
    sigset_t set;
    ::sigemptyset(&set);
    ::sigaddset(&set, timerSignal());
    ::sigprocmask(SIG_UNBLOCK, &set, nullptr);
}

// Made once, for each process. Not the delivery alarm's signal: that goes on meanwhile.
Timer makeTimer() noexcept {
    struct sigaction action {};
    action.sa_handler = timeIsUp;
    ::sigemptyset(&action.sa_mask);
    unblockTimerSignal();
    sigevent event{};
    event.sigev_notify = SIGEV_SIGNAL;
    event.sigev_signo = timerSignal();
    Timer fresh;
    fresh.process = ::getpid();
    fresh.made = ::sigaction(timerSignal(), &action, nullptr) == 0 &&
                 ::timer_create(CLOCK_MONOTONIC, &event, &fresh.id) == 0;
    return fresh;
}

constinit Timer timer;

bool start(int seconds) noexcept {
    if (timer.process != ::getpid()) {
        timer = makeTimer();
    }
    itimerspec when{};
    when.it_value.tv_sec = seconds;
    when.it_interval.tv_nsec = kRepeatNs;
    return timer.made && ::timer_settime(timer.id, 0, &when, nullptr) == 0;
}

void stop() noexcept {
    if (timer.made) {
        const itimerspec never{};
        ::timer_settime(timer.id, 0, &never, nullptr);
    }
}

// The seconds that all attempts with all name servers take, those limited to what may be.
int limitDatagrams() noexcept {
    const int waits = std::max(1, _res.retry) * std::max(1, _res.nscount);
    _res.retrans = std::clamp(_res.retrans, 1, std::max(1, kDatagramSeconds / waits));
    // In the last round each name server but the first may still be given its second.
    return std::max(1, _res.retrans * waits - (std::max(1, _res.nscount) - 1));
}

} // namespace

LookUpLimit::LookUpLimit(bool anySize) noexcept {
    // The library would itself look whether the file has changed, and forget the settings made
    // here.
    if ((_res.options & RES_INIT) != 0) { // else it would close what it has not: descriptor 0
        ::res_nclose(&_res);
    }
    if (::res_ninit(&_res) != 0) {
        _res.options &= ~static_cast<unsigned long>(RES_INIT); // or nobody would try it again
    }
    _res.options = (_res.options & ~static_cast<unsigned long>(RES_DNSRCH)) | RES_NORELOAD;
    _res.options |= anySize ? RES_USE_EDNS0 : 0;
    resolver = &_res;
    struct sigaction ignore {};
    // The library writes to a connection that the other side, or our timer, may have closed.
    ignore.sa_handler = SIG_IGN;
    ::sigaction(SIGPIPE, &ignore, &oldPipe_);
    asking = true;
    if (!start(limitDatagrams())) {
        _res.options |= RES_IGNTC; // no TCP then: nothing could end it
    }
}

LookUpLimit::~LookUpLimit() {
    const int saved = errno;
    asking = false;
    stop();
    ::sigaction(SIGPIPE, &oldPipe_, nullptr);
    errno = saved;
}

const hostent* hostByName(const char* name) noexcept {
    const LookUpLimit limit;
    return ::gethostbyname(name);
}

} // namespace Email
