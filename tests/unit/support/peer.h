// The other end of a conversation, in the test's own process.
#pragma once

#include "email/site/HostList.h"
#include "fwall/UniqueFd.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <string>
#include <string_view>
#include <thread>
#include <utility>

inline IPaddress address(const char* dotted) {
    return IPaddress(::inet_addr(dotted));
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
    for (char c = 0; !text.ends_with(end) && ::recv(fd, &c, 1, 0) > 0;) {
        text += c;
    }
    return text;
}

// Listens on a port of a loopback address; any port for 0, which is then told.
inline UniqueFd listenOn(const char* dotted, int& port) {
    UniqueFd listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in at{};
    at.sin_family = AF_INET;
    at.sin_port = htons(static_cast<std::uint16_t>(port));
    at.sin_addr.s_addr = address(dotted).value;
    socklen_t size = sizeof at;
    ::bind(listener.get(), reinterpret_cast<sockaddr*>(&at), size);
    ::listen(listener.get(), 8);
    ::getsockname(listener.get(), reinterpret_cast<sockaddr*>(&at), &size);
    port = ntohs(at.sin_port);
    return listener;
}

// What the gateway knows of its own host, as a test wants it.
struct ThisHost : HostList {
    static void rename(std::string_view name) {
        privateHostName.fill('\0');
        name.copy(privateHostName.data(), privateHostName.size() - 1);
    }
    static void local(IPaddress address) { m_selfaddr = {address}; }
};
