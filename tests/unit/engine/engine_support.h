// What the engine's tests share: a system log and a reporter of their own, and a scratch spool.
#pragma once

#include "email/engine/ListSender.h"
#include "email/site/mailscanGlobals.h"
#include "libevrep/Reporter.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

// syslog() ends here: "<priority> text", the process id cut off.
extern std::vector<std::string> loggedLines;
int linesWith(const std::string& text);

// What the reporter was given.
extern std::vector<GW_EVENT> reported;

// Done once, right before the next flock().
extern std::function<void()> beforeLock;

// Empty spool directories, no DNS and no relays: every well-formed address fails with 1001, and one
// without "@" with 1003. Settings, log and reports are as at the start of the program.
class Spool : public testing::Test {
protected:
    Spool();
    ~Spool() override;

    // A deferred message, tried once, that many seconds ago.
    void queue(const std::string& leaf, const std::string& sender, const std::string& recipients,
               int ago = 5000) const;

    std::string deferred(const std::string& name) const { return root_ + "q/" + name; }
    std::string outgoing(const std::string& name) const { return root_ + "o/" + name; }
    std::string names() const;      // those in the deferred queue, sorted, each with a blank
    std::string returnMail() const; // the leaf name of a queued one, or nothing
    // A queued message's recipient file from the sender on.
    std::string envelope(const std::string& leaf) const;

private:
    std::string root_ = "/tmp/engine_testXXXXXX";
};

std::string contents(const std::string& path);
void writeFile(const std::string& path, const std::string& bytes);
