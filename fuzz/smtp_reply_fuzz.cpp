// What a server sends, any bytes, in 64 segments at most, whose length the first byte gives: every
// reply is a number of three characters or 1001, and the reading ends. The same bytes, line by
// line, are then what the server says it can, and a file of those who sign in to relays.
#include "email/base/Base64.h"
#include "email/site/RelayAccess.h"
#include "email/smtp/Sender.h"
#include "email/smtp/ServerExtensions.h"
#include "fuzz.h"
#include "fwall/UniqueFd.h"

#include <sys/socket.h>

#include <algorithm>
#include <string_view>

struct Client : Sender {
    explicit Client(int fd) { theSocket = fd; }
    void logEvent(eventId, const char*, int) override {}
};

static void readAccess(std::string_view text) {
    Email::RelayAccess access;
    require(access.parse(text) == access.trouble().empty());
    for (const auto& line : access.lines()) {
        require(access.find(line.host) == &line && line.port > 0 && line.port < 65536);
        require(!line.user.empty() && line.password.size() <= Email::RelayAccess::kMaxWord);
        require(*Email::fromBase64(Email::toBase64(line.password)) == line.password);
    }
    (void)Email::fromBase64(text);
}

static void readExtensions(std::string_view text) {
    Email::ServerExtensions server;
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\n'), text.size() - 1);
        server.addLine(text.substr(0, end));
        text.remove_prefix(end + 1);
        require(server.lines <= Email::ServerExtensions::kMaxLines);
        require(server.size || server.sizeLimit == 0);
    }
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    readExtensions({reinterpret_cast<const char*>(data), size});
    readAccess({reinterpret_cast<const char*>(data), size});
    int fds[2] = {-1, -1};
    if (size == 0 || ::socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) {
        return 0;
    }
    const UniqueFd server(fds[1]);
    Client client(fds[0]);
    const std::size_t segment = data[0] + size / 64 + 1;
    for (std::size_t at = 1; at < size; at += segment) {
        ::send(server.get(), data + at, std::min(segment, size - at), MSG_NOSIGNAL);
        const int number = client.readReply(0, nullptr);
        require(number == COMMS_FAILED || (number >= -99 && number <= 999));
    }
    return 0;
}
