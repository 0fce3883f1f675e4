// What the system tells of running processes: nothing that anybody could forge for another's, or
// leave behind. Much of another user's process is told to the superuser only.
#pragma once

#include "email/base/IPaddress.h"

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace Retryq {

struct Process {
    pid_t pid = 0;
    pid_t parent = 0;
    std::string user;               // its name, or its number; empty: not known
    std::time_t since = 0;          // started, seconds since the epoch; 0: not known
    std::string title;              // as it calls itself, up to 15 bytes
    std::vector<std::string> words; // its command line; what it says of itself
    std::string program;            // the last part of its file's name, or of the first word
    bool visible = false;           // false: there is no such process to be seen
};

[[nodiscard]] Process processOf(pid_t pid);

// All that can be seen.
[[nodiscard]] std::vector<pid_t> allProcesses();

// The connections of this host over IPv4, by the inode of their socket.
class Connections {
public:
    static constexpr std::uint16_t kMailPort = 25;
    static constexpr std::uint16_t kNamePort = 53;

    struct Peer {
        IPaddress address;
        std::uint16_t port = 0;
        bool standing = false; // not only begun
    };

    // Reads the system's tables, as the process sees them: it may have a network of its own.
    explicit Connections(pid_t of);

    // Of the process; nothing when it has none. `hidden` is set when its descriptors may not be
    // looked at.
    [[nodiscard]] std::optional<Peer> of(pid_t pid, bool& hidden) const;

private:
    void read(const std::string& table);
    std::map<ino_t, Peer> peers_;
};

} // namespace Retryq
