// The limits of one question to the system's resolver (res_search(3), gethostbyname(3)). Every one
// is asked within the life of such an object, and one at a time.
//
// The resolver's own time-outs hold for UDP only: a name server that says "truncated" is asked
// again over TCP, where nothing ends the wait for one that falls silent, and where one that is gone
// raises SIGPIPE. So a timer closes the TCP connection when the time is up, and SIGPIPE is ignored
// meanwhile.
//
// It also sets what is asked: a name with a dot as it stands, never with a domain of the search
// list behind it, where a wildcard would answer for every domain of the world. A name without any
// dot still gets the default domain.
#pragma once

#include <csignal>

struct hostent;

namespace Email {

class LookUpLimit {
public:
    // Seconds that a question lasts at most, whatever /etc/resolv.conf says.
    static constexpr int kLongest = 60;

    // Reads /etc/resolv.conf again when it has changed, and starts the time: time-out x attempts x
    // name servers of it. Without a timer (none left) nothing is asked over TCP.
    // With `anySize` larger answers than RFC 1035's are asked for over UDP as well (EDNS).
    explicit LookUpLimit(bool anySize = false) noexcept;
    // Keeps errno.
    ~LookUpLimit();
    LookUpLimit(const LookUpLimit&) = delete;
    LookUpLimit& operator=(const LookUpLimit&) = delete;

private:
    struct sigaction oldPipe_ {};
};

// gethostbyname(3) within the limits; errno and h_errno are its own.
[[nodiscard]] const hostent* hostByName(const char* name) noexcept;

} // namespace Email
