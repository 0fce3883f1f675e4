// What the tests share: a system log of their own, allocations that fail, scratch rule tables and
// private mounts.
#pragma once

#include "fwall/config.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

// syslog(), openlog() and closelog() end here: "<priority> text", "openlog ident options facility",
// "closelog". With echoLog each line goes to standard error as well.
extern std::vector<std::string> loggedLines;
extern bool echoLog;

// operator new throws once, after this many allocations.
extern std::optional<int> allocationsLeft;

// Gives the calling process a private, empty /var with /var/run and /var/QELENV in it; false, with
// errno, where the kernel or container refuses.
bool enterSandbox();
// Whether a process of its own can do that.
bool sandboxAvailable();

// Ends a death test's process: status 0, or 99 with what failed in it on standard error.
[[noreturn]] void endChild();

void writeFile(const std::string& path, std::string_view bytes);

// An install location of its own, named by TAVORIX, whose rule table holds these bytes.
class ScratchTable {
public:
    explicit ScratchTable(std::string_view bytes);
    ~ScratchTable();
    [[nodiscard]] std::string path() const { return root_ + "/usr/local/etc/rulbex-table"; }

private:
    std::string root_;
};

// "line/flags keyword [argument|argument]" of each record.
std::string described(const cfgrec* list);
