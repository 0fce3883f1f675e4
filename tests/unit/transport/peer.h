// The other end of a conversation, in the test's own process.
#pragma once

#include "email/HostList.h"
#include "fwall/UniqueFd.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <functional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

inline IPaddress address(const char* dotted) {
    return IPaddress(::inet_addr(dotted));
}

inline sockaddr_in endpoint(IPaddress host, int port) {
    sockaddr_in at{};
    at.sin_family = AF_INET;
    at.sin_port = htons(static_cast<std::uint16_t>(port));
    at.sin_addr.s_addr = host.value;
    return at;
}

// Two connected stream sockets: the first is for the object under test to own.
inline std::pair<int, UniqueFd> connectedPair() {
    int fds[2] = {-1, -1};
    ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds);
    return {fds[0], UniqueFd(fds[1])};
}

inline void put(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t n = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        bytes.remove_prefix(n > 0 ? static_cast<std::size_t>(n) : bytes.size());
    }
}

// What arrives, up to and with `end` or to the end of the input.
inline std::string getUntil(int fd, std::string_view end) {
    std::string text;
    char block[4096];
    for (ssize_t n = 1; n > 0 && !text.ends_with(end);) {
        n = ::recv(fd, block, end.size() == 1 ? 1 : sizeof block, 0);
        text.append(block, static_cast<std::size_t>(std::max<ssize_t>(n, 0)));
    }
    return text;
}

// Listens on a loopback address and serves each connection with the script, one after another.
class Server {
public:
    Server(const char* dotted, std::function<void(int fd)> script)
        : listener_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in at = endpoint(address(dotted), 0);
        socklen_t size = sizeof at;
        ::bind(listener_.get(), reinterpret_cast<sockaddr*>(&at), size);
        ::listen(listener_.get(), 8);
        ::getsockname(listener_.get(), reinterpret_cast<sockaddr*>(&at), &size);
        port = ntohs(at.sin_port);
        thread_ = std::jthread([this, script = std::move(script)] {
            for (int fd = 0; (fd = ::accept(listener_.get(), nullptr, nullptr)) >= 0; ++served) {
                const UniqueFd connection(fd);
                script(fd);
            }
        });
    }
    ~Server() { ::shutdown(listener_.get(), SHUT_RDWR); }
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    int port = 0;
    int served = 0;

private:
    UniqueFd listener_;
    std::jthread thread_;
};

// What the gateway knows of its own host, as a test wants it.
struct ThisHost : HostList {
    static void rename(std::string_view name) {
        privateHostName.fill('\0');
        name.copy(privateHostName.data(), privateHostName.size() - 1);
    }
    static void local(IPaddress address) { m_selfaddr = {address}; }
};
