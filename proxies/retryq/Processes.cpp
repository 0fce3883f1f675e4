#include "retryq/Processes.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

namespace Retryq {

namespace {

namespace fs = std::filesystem;

std::string pathOf(pid_t pid, const char* what) {
    return "/proc/" + std::to_string(pid) + "/" + what;
}

std::string readAll(const std::string& path) {
    std::ifstream in(path);
    return {std::istreambuf_iterator<char>(in), {}};
}

std::string userName(uid_t uid) {
    const passwd* const user = ::getpwuid(uid);
    return user == nullptr ? std::to_string(uid) : user->pw_name;
}

std::time_t bootTime() {
    std::ifstream in("/proc/stat");
    for (std::string line; std::getline(in, line);) {
        if (line.starts_with("btime ")) {
            return static_cast<std::time_t>(std::strtoll(line.c_str() + 6, nullptr, 10));
        }
    }
    return 0;
}

// "4711 (title) S 4710 ...": a title may hold anything, so that it ends at the last parenthesis.
// The 4th field is the parent, the 22nd the start in clock ticks since the system's.
void readStat(Process& process) {
    constexpr int kBetween = 17;
    const std::string stat = readAll(pathOf(process.pid, "stat"));
    const std::size_t begin = stat.find('(');
    const std::size_t end = stat.rfind(')');
    if (begin == std::string::npos || end == std::string::npos || end < begin) {
        return;
    }
    process.visible = true;
    process.title = stat.substr(begin + 1, end - begin - 1);
    std::istringstream fields(stat.substr(end + 1));
    std::string skipped;
    fields >> skipped >> process.parent;
    for (int i = 0; i < kBetween; ++i) {
        fields >> skipped;
    }
    long long start = 0;
    if (fields >> start) {
        process.since = bootTime() + static_cast<std::time_t>(start / ::sysconf(_SC_CLK_TCK));
    }
}

std::vector<std::string> wordsOf(pid_t pid) {
    std::istringstream in(readAll(pathOf(pid, "cmdline")));
    std::vector<std::string> words;
    for (std::string word; std::getline(in, word, '\0');) {
        words.push_back(word);
    }
    return words;
}

} // namespace

Process processOf(pid_t pid) {
    Process process;
    process.pid = pid;
    readStat(process);
    struct stat owner {};
    if (!process.visible || ::stat(pathOf(pid, "").c_str(), &owner) != 0) {
        process.visible = false;
        return process;
    }
    process.user = userName(owner.st_uid);
    process.words = wordsOf(pid);
    std::error_code error;
    // The program itself, where this user may know it, and else what the process calls itself.
    const fs::path file = fs::read_symlink(pathOf(pid, "exe"), error);
    process.program = !error                  ? file.filename().string()
                      : process.words.empty() ? process.title
                                              : fs::path(process.words.front()).filename().string();
    return process;
}

std::vector<pid_t> allProcesses() {
    std::vector<pid_t> all;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator("/proc", error)) {
        const std::string name = entry.path().filename();
        if (name.find_first_not_of("0123456789") == std::string::npos) {
            all.push_back(static_cast<pid_t>(std::strtol(name.c_str(), nullptr, 10)));
        }
    }
    return all;
}

Connections::Connections(pid_t of) {
    read(pathOf(of, "net/tcp"));
    read(pathOf(of, "net/udp"));
}

// "0: 0100007F:A2C4 0200007F:0019 01 ... uid timeout inode": the 3rd field is the peer, its address
// as it lies in memory, the 4th the state, the 10th the inode.
void Connections::read(const std::string& table) {
    constexpr unsigned kEstablished = 1;
    constexpr unsigned kSynSent = 2;
    std::ifstream in(table);
    for (std::string line; std::getline(in, line);) {
        unsigned address = 0;
        unsigned port = 0;
        unsigned state = 0;
        unsigned long long inode = 0;
        if (std::sscanf(line.c_str(), "%*s %*s %8x:%4x %2x %*s %*s %*s %*s %*s %llu", &address,
                        &port, &state, &inode) == 4 &&
            (state == kEstablished || state == kSynSent)) {
            peers_[static_cast<ino_t>(inode)] = {
                IPaddress(address), static_cast<std::uint16_t>(port), state == kEstablished};
        }
    }
}

std::optional<Connections::Peer> Connections::of(pid_t pid, bool& hidden) const {
    std::error_code error;
    std::optional<Peer> found;
    for (const auto& entry : fs::directory_iterator(pathOf(pid, "fd"), error)) {
        std::error_code gone;
        const std::string target = fs::read_symlink(entry.path(), gone);
        constexpr std::string_view kSocket = "socket:[";
        if (gone || !target.starts_with(kSocket)) {
            continue;
        }
        const ino_t inode = std::strtoull(target.c_str() + kSocket.size(), nullptr, 10);
        const auto peer = peers_.find(inode);
        // Of several connections the one to a mail server is meant.
        if (peer != peers_.end() && (!found || peer->second.port == kMailPort)) {
            found = peer->second;
        }
    }
    hidden = static_cast<bool>(error);
    return found;
}

} // namespace Retryq
