// What the engine's tests share: a system log and a reporter of their own, and a scratch spool.
#pragma once

#include "email/ListSender.h"
#include "email/mailscanGlobals.h"
#include "libevrep/Reporter.h"

#include <functional>
#include <string>
#include <string_view>
#include <vector>

// syslog() ends here: "<priority> text", the process id cut off.
extern std::vector<std::string> loggedLines;
int linesWith(std::string_view text);

// Done once, right before the next flock().
extern std::function<void()> beforeLock;

// What the reporter was given.
extern std::vector<GW_EVENT> reported;

// Empty spool directories, no DNS and no relays: every well-formed address fails with 1001, and one
// without "@" with 1003. Settings, log and reports are as at the start of the program.
class ScratchSpool {
public:
    ScratchSpool();
    ~ScratchSpool();

    // A deferred message, first and last tried that many seconds ago.
    void queue(const std::string& leaf, int firstAgo, int lastAgo, const std::string& sender,
               const std::vector<std::string>& recipients) const;

    [[nodiscard]] std::string deferred(const std::string& name) const {
        return root_ + "/q/" + name;
    }
    [[nodiscard]] std::string outgoing(const std::string& name) const {
        return root_ + "/o/" + name;
    }
    // The sorted names in the deferred queue, joined by blanks.
    [[nodiscard]] std::string names() const;
    [[nodiscard]] std::string returnMail() const; // the leaf name of a queued one, or nothing
    // A queued message's recipient file from the sender on.
    [[nodiscard]] std::string envelope(const std::string& leaf) const;

private:
    std::string root_;
};

std::string contents(const std::string& path);
void writeFile(const std::string& path, std::string_view bytes);
