// What a server sends, any bytes, in 64 segments at most, whose length the first byte gives: every
// reply is a number of three characters or 1001, and the reading ends.
#include "email/smtp/Sender.h"
#include "fuzz.h"
#include "fwall/UniqueFd.h"

#include <sys/socket.h>

#include <algorithm>

struct Client : Sender {
    explicit Client(int fd) { theSocket = fd; }
    void logEvent(eventId, const char*, int) override {}
};

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
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
