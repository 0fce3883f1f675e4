// A message body, any bytes, through a whole DATA command: a receiver that ends it at the first
// CR LF . CR LF and undoes dots and line ends gets back what was queued.
#include "email/smtp/BodyShaper.h"
#include "email/smtp/Sender.h"
#include "fuzz.h"
#include "fwall/UniqueFd.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <array>
#include <sstream>
#include <string>

namespace {

constexpr std::size_t kLargestBody = 100000; // goes into a socket's room in one

struct Client : Sender {
    explicit Client(int fd) { theSocket = fd; }
    void logEvent(eventId, const char*, int) override {}
};

// 0xff and a number n stand for 16 n bytes 'x', so that short inputs make long lines; 0xff 0 is
// 0xff.
std::string bodyOf(const std::uint8_t* data, std::size_t size) {
    std::string body;
    for (std::size_t i = 0; i < size && body.size() < kLargestBody; ++i) {
        if (data[i] == 0xff && i + 1 < size && data[++i] != 0) {
            body.append(data[i] * std::size_t{16}, 'x');
        } else {
            body += static_cast<char>(data[i]);
        }
    }
    return body;
}

// Of a last line without a line feed only the pieces go out that are surely no line's end.
std::string whatIsSent(std::string body) {
    const std::size_t lineFeed = body.rfind('\n');
    std::size_t sent = lineFeed == std::string::npos ? 0 : lineFeed + 1;
    while (body.size() - sent > Email::BodyShaper::kLineLimit) {
        sent += Email::BodyShaper::kPieceSize;
    }
    body.resize(sent);
    return body;
}

std::string received(int fd) {
    std::string wire;
    std::array<char, 65536> block{};
    for (ssize_t n = 0; (n = ::recv(fd, block.data(), block.size(), 0)) > 0;) {
        wire.append(block.data(), static_cast<std::size_t>(n));
    }
    return wire;
}

// RFC 5321, 4.5.2, on the receiver's side; the end must be the first that looks like one.
std::string unshaped(std::string_view wire) {
    require(wire.starts_with("DATA\r\n"));
    wire.remove_prefix(4); // a dot right behind the command's CR LF ends a body as well
    require(wire.find("\r\n.\r\n") == wire.size() - 5);
    wire.remove_prefix(2);
    wire.remove_suffix(3);
    std::string body;
    for (std::size_t i = 0; i < wire.size(); ++i) {
        if (wire[i] == '.' && (body.empty() || body.ends_with('\n'))) {
            ++i;
        }
        if (wire[i] == '\n') {
            require(body.ends_with('\r'));
            body.pop_back();
        }
        body += wire[i];
    }
    return body;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    int fds[2] = {-1, -1};
    require(::socketpair(AF_UNIX, SOCK_STREAM, 0, fds) == 0);
    const UniqueFd server(fds[1]);
    const std::string body = bodyOf(data, size);
    {
        Client client(fds[0]);
        constexpr std::string_view replies = "354 go\r\n250 ok\r\n";
        require(::send(server.get(), replies.data(), replies.size(), 0) == ssize_t(replies.size()));
        std::istringstream text(body);
        SMTPcode code = IDS_NO_REASON;
        require(client.SendDATA(text, "", &code) && code == ACTION_OKA);
        ::shutdown(fds[0], SHUT_WR);
    }
    // The body ends with one empty line more than was queued.
    require(unshaped(received(server.get())) == whatIsSent(body) + "\n");
    return 0;
}
