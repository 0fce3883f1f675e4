// floor_ceiling <address> <messages> <connections at once> <bytes>: what the sink can take. Every
// conversation goes out whole, so that the sink alone sets the pace.
#include "floor.h"

#include <algorithm>

namespace {

constexpr std::string_view kEnvelope = "HELO gate.bench.test\r\nmail from: <s@bench.test>\r\n"
                                       "RCPT TO: <r@d0.bench.test>\r\nDATA\r\n";
constexpr std::string_view kEnd = "\r\n.\r\nQUIT\r\n";

void sendAll(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t sent = send(fd, text.data(), text.size(), MSG_NOSIGNAL);
        if (sent <= 0) {
            std::abort();
        }
        text.remove_prefix(static_cast<std::size_t>(sent));
    }
}

int begin(std::uint32_t address, std::size_t bytes) {
    static const std::string block(256 * 1024, 'x');
    static const std::string small =
        std::string(kEnvelope) + block.substr(0, std::min(bytes, block.size())) + std::string(kEnd);
    sockaddr_in name{};
    name.sin_family = AF_INET;
    name.sin_port = htons(25);
    name.sin_addr.s_addr = address;
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (connect(fd, reinterpret_cast<sockaddr*>(&name), sizeof name) != 0) {
        std::abort();
    }
    if (bytes <= block.size()) {
        sendAll(fd, small);
        return fd;
    }
    sendAll(fd, kEnvelope);
    for (std::size_t left = bytes; left > 0; left -= std::min(left, block.size())) {
        sendAll(fd, std::string_view(block).substr(0, left));
    }
    sendAll(fd, kEnd);
    return fd;
}

void finish(int fd) {
    char block[512];
    while (recv(fd, block, sizeof block, 0) > 0) {
    }
    close(fd);
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 5) {
        return 2;
    }
    const auto atOnce = static_cast<std::size_t>(std::atol(argv[3]));
    const auto bytes = static_cast<std::size_t>(std::atol(argv[4]));
    std::vector<int> open;
    for (long left = std::atol(argv[2]); left > 0;) {
        for (; left > 0 && open.size() < atOnce; --left) {
            open.push_back(begin(Floor::addressOf(argv[1]), bytes));
        }
        for (const int fd : open) {
            finish(fd);
        }
        open.clear();
    }
}
