// What the floors share: the client's side of a conversation in step, and whole files.
#pragma once

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

namespace Floor {

inline std::uint32_t addressOf(const char* text) {
    in_addr address{};
    inet_aton(text, &address);
    return address.s_addr;
}

// A conversation with a server at an address in network order. Every step waits for its reply.
class Conversation {
public:
    explicit Conversation(std::uint32_t address) : fd_(socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in name{};
        name.sin_family = AF_INET;
        name.sin_port = htons(25);
        name.sin_addr.s_addr = address;
        const int on = 1;
        setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        const bool connected = connect(fd_, reinterpret_cast<sockaddr*>(&name), sizeof name) == 0;
        open_ = connected && reply() == 220;
    }
    ~Conversation() { close(fd_); }
    Conversation(const Conversation&) = delete;
    Conversation& operator=(const Conversation&) = delete;

    [[nodiscard]] bool open() const noexcept { return open_; }

    // Writes the text, in one call unless the socket is full.
    void write(std::string_view text) {
        while (!text.empty()) {
            const ssize_t sent = send(fd_, text.data(), text.size(), MSG_NOSIGNAL);
            if (sent <= 0) {
                return;
            }
            text.remove_prefix(static_cast<std::size_t>(sent));
        }
    }

    // Reads one reply; its number, 0 when the connection is lost.
    int reply() {
        char line[512];
        const ssize_t got = recv(fd_, line, sizeof line - 1, 0);
        line[got > 0 ? got : 0] = '\0';
        return std::atoi(line);
    }

    int say(std::string_view text) {
        write(text);
        return reply();
    }

private:
    int fd_;
    bool open_ = false;
};

// Reads the whole file into `text`, growing it only when the file is larger than any before.
inline void readAll(int fd, std::string& text) {
    struct stat status {};
    fstat(fd, &status);
    text.resize(static_cast<std::size_t>(status.st_size));
    std::size_t have = 0;
    for (ssize_t got;
         have < text.size() && (got = read(fd, &text[have], text.size() - have)) > 0;) {
        have += static_cast<std::size_t>(got);
    }
}

// The text of a message: read and sent in one piece when it is small, streamed when it is not, as
// the memory for a large one would cost more than the calls.
class Body {
public:
    // Reads the text, or the first block of a large one.
    void read(int fd) {
        fd_ = fd;
        have_ = fill(0);
    }

    [[nodiscard]] std::string_view start() const noexcept { return {block_.data(), have_}; }

    void sendTo(Conversation& server) {
        if (have_ < block_.size()) {
            server.write(start());
            return;
        }
        for (off_t at = 0; (have_ = fill(at)) > 0; at += static_cast<off_t>(have_)) {
            server.write(start());
        }
    }

private:
    std::size_t fill(off_t at) {
        const ssize_t got = pread(fd_, block_.data(), block_.size(), at);
        return got > 0 ? static_cast<std::size_t>(got) : 0;
    }

    std::vector<char> block_ = std::vector<char>(64 * 1024);
    int fd_ = -1;
    std::size_t have_ = 0;
};

// Calls visit(name) with the name of every message that has a recipient file in the directory.
template<class Visit>
void eachMessage(const char* directory, Visit visit) {
    DIR* dir = opendir(directory);
    while (const dirent* entry = dir != nullptr ? readdir(dir) : nullptr) {
        const std::string_view name = entry->d_name;
        if (name.ends_with(".rmd")) {
            visit(std::string(directory) + std::string(name.substr(0, name.size() - 4)));
        }
    }
    closedir(dir);
}

// The durable rewrite of a small file: one sync, no more.
inline void rewrite(const std::string& path, std::string_view bytes) {
    const std::string temporary = path + "~";
    const int fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0664);
    if (fd < 0 || write(fd, bytes.data(), bytes.size()) < 0 || fsync(fd) != 0) {
        std::abort();
    }
    close(fd);
    rename(temporary.c_str(), path.c_str());
}

} // namespace Floor
