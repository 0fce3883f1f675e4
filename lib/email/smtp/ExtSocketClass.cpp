#include "email/smtp/ExtSocketClass.h"

#include "email/base/Alarm.h"
#include "email/base/Assert.h"
#include "email/site/LookUpLimit.h"
#include "email/smtp/TlsChannel.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstring>
#include <ostream>
#include <string_view>

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kUnit = "lib/email/ExtSocketClass";
constexpr long kConnectWaitMs = 30'000;
constexpr long kDatagramWaitMs = 2'000;
constexpr long kFullBufferPauseMs = 100;

// Above 0 when the descriptor is ready, 0 after the limit, -1 with errno otherwise.
int waitFor(int fd, short events, long limitMs) noexcept {
    if (limitMs < 0) {
        errno = EINVAL;
        return -1;
    }
    pollfd entry{fd, events, 0};
    // Not ppoll(): a fortified build for 32-bit hosts hands it a time of the wrong width.
    return ::poll(&entry, 1, static_cast<int>(std::min<long>(limitMs, INT_MAX)));
}

bool nothingYet(int error) noexcept {
    return error == EAGAIN || error == EINTR;
}

bool isLineEnd(char c) noexcept {
    return c == '\r' || c == '\n';
}

void setOption(int fd, int level, int option) noexcept {
    const int on = 1;
    ::setsockopt(fd, level, option, &on, sizeof on);
}

} // namespace

ExtSocketClass::ExtSocketClass() noexcept = default;

ExtSocketClass::~ExtSocketClass() {
    Close();
}

int ExtSocketClass::errorCode(int dflt) noexcept {
    extendedError = errno != 0 ? errno : dflt;
    return extendedError;
}

int ExtSocketClass::fail(int& err, int number) noexcept {
    err = extendedError = number;
    return 0;
}

void ExtSocketClass::checkDescriptor(std::uint32_t line) const noexcept {
    if (theSocket < 0 || theSocket >= FD_SETSIZE) {
        assert_failure("theSocket>=0 && theSocket < FD_SETSIZE", kUnit, line);
    }
}

void ExtSocketClass::Create(int& err) noexcept {
    Create(AF_INET, SOCK_STREAM, 0, err);
}

void ExtSocketClass::Create(int domain, int type, int protocol, int& err) noexcept {
    Close();
    errno = 0;
    theSocket = ::socket(domain, type | SOCK_CLOEXEC, protocol);
    if (theSocket < 0) {
        theSocket = -1;
        errorCode(-1);
    } else {
        int nonBlocking = 0;
        ::ioctl(theSocket, FIONBIO, &nonBlocking);
    }
    err = extendedError;
}

void ExtSocketClass::Bind(const sockaddr* address, unsigned len, int& err) noexcept {
    extendedError = 0;
    if (theSocket < 0) {
        extendedError = EBADF;
    } else if (::bind(theSocket, address, len) < 0) {
        errorCode(-1);
    }
    err = extendedError;
}

void ExtSocketClass::startConnect(const sockaddr* address, unsigned short len, int flags) noexcept {
    const bool connected = flags != -1 && ::fcntl(theSocket, F_SETFL, flags | O_NONBLOCK) != -1 &&
                           ::connect(theSocket, address, len) == 0;
    if (connected) {
        extendedError = 0;
    } else {
        errorCode(-1);
    }
}

void ExtSocketClass::takeSocketError() noexcept {
    socklen_t size = sizeof extendedError;
    if (::getsockopt(theSocket, SOL_SOCKET, SO_ERROR, &extendedError, &size) < 0) {
        errorCode(-1);
    }
}

// A connect that succeeded at once is waited for as well, and a wait that a signal ended still asks
// the socket: what it says is the result.
void ExtSocketClass::finishConnect() noexcept {
    connectTimedOut_ = waitFor(theSocket, POLLOUT, kConnectWaitMs) == 0;
    if (connectTimedOut_) {
        extendedError = EADDRNOTAVAIL;
    } else {
        takeSocketError();
    }
}

void ExtSocketClass::Connect(const sockaddr* address, unsigned short len, int& err) noexcept {
    connectTimedOut_ = false;
    if (theSocket < 0) {
        err = extendedError = EBADF;
        return;
    }
    const int flags = ::fcntl(theSocket, F_GETFL);
    startConnect(address, len, flags);
    if (extendedError == 0 || extendedError == EINPROGRESS) {
        finishConnect();
    }
    err = extendedError;
    if ((flags & O_NONBLOCK) == 0) {
        ::fcntl(theSocket, F_SETFL, ::fcntl(theSocket, F_GETFL) & ~O_NONBLOCK);
    }
    setOption(theSocket, SOL_SOCKET, SO_KEEPALIVE);
    // The last block of a body must not wait for the acknowledgement of the one before.
    setOption(theSocket, IPPROTO_TCP, TCP_NODELAY);
}

void ExtSocketClass::Connect(const char* host, unsigned short port, int& err, int) noexcept {
    errno = 0;
    const hostent* answer = Email::hostByName(host);
    if (answer == nullptr || answer->h_addrtype != AF_INET || answer->h_addr_list[0] == nullptr) {
        err = errorCode(ENOENT);
        return;
    }
    sockaddr_in address{};
    if (sizeof(address.sin_addr.s_addr) != static_cast<std::size_t>(answer->h_length)) {
        assert_failure("sizeof(addr.sin_addr.s_addr) == host->h_length", kUnit, contractLine(171));
    }
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    std::memcpy(&address.sin_addr, answer->h_addr_list[0], sizeof address.sin_addr);
    Connect(reinterpret_cast<const sockaddr*>(&address), sizeof address, err);
}

// Bytes held behind the ending of the last line, which stays held until the next one is asked for.
int ExtSocketClass::unread() const noexcept {
    const bool ending = readBufferUsed > 0 && isLineEnd(readBuffer[0]);
    const bool pair = readBufferUsed > 1 && readBuffer[0] == '\r' && readBuffer[1] == '\n';
    return readBufferUsed - (pair ? 2 : static_cast<int>(ending));
}

bool ExtSocketClass::inputWaiting() noexcept {
    if (theSocket >= 0 && readBufferUsed < kReadBufferSize - 1) {
        int err = 0;
        bool urgent = false;
        receive(urgent, err); // an end or an error shows again when something is read or sent
    }
    return unread() > 0;
}

int ExtSocketClass::protect(std::unique_ptr<Email::TlsChannel> channel) noexcept {
    const int discarded = unread();
    readBufferUsed = 0;
    channel_ = std::move(channel);
    return discarded;
}

int ExtSocketClass::Close() noexcept {
    channel_.reset();
    const int result = theSocket < 0 ? theSocket : ::close(theSocket);
    theSocket = -1;
    extendedError = 0;
    readBufferUsed = 0;
    return result;
}

ssize_t ExtSocketClass::receiveSome(char* to, std::size_t room) noexcept {
    return channel_ ? channel_->receive(to, room) : ::recv(theSocket, to, room, MSG_DONTWAIT);
}

ssize_t ExtSocketClass::sendSome(const char* from, std::size_t size) noexcept {
    return channel_ ? channel_->send(from, size)
                    : ::send(theSocket, from, size, MSG_DONTWAIT | MSG_NOSIGNAL);
}

int ExtSocketClass::waitToSend(long limitMs) const noexcept {
    // TLS may have to receive before it can send.
    return waitFor(theSocket, channel_ ? channel_->events() : POLLOUT, limitMs);
}

// Adds what has arrived to the buffer. False, with `err`, when nothing more will come. Urgent data
// wakes a wait without anything to read; from then on it is not waited for.
bool ExtSocketClass::receive(bool& urgent, int& err) noexcept {
    const auto room = static_cast<std::size_t>(kReadBufferSize - 1 - readBufferUsed);
    const ssize_t n = receiveSome(readBuffer.data() + readBufferUsed, room);
    if (n > 0) {
        readBufferUsed += static_cast<std::int32_t>(n);
        readBuffer[static_cast<std::size_t>(readBufferUsed)] = '\0';
    } else if (n == 0) {
        fail(err, ENODATA);
    } else if (nothingYet(errno)) {
        urgent = false;
    } else {
        err = errorCode(-1);
    }
    return err == 0;
}

bool ExtSocketClass::awaitMore(long limitMs, bool& urgent, int& err) noexcept {
    if (readBufferUsed == kReadBufferSize - 1) {
        // No room for the rest of this line: nothing is received until the caller's time is up.
        const long pause = std::clamp(limitMs, 0L, kFullBufferPauseMs);
        if (::poll(nullptr, 0, static_cast<int>(pause)) != 0) {
            fail(err, ETIME);
        }
        return err == 0;
    }
    if (channel_) {
        return awaitProtected(limitMs, err);
    }
    const short events = urgent ? POLLIN | POLLPRI : POLLIN;
    if (waitFor(theSocket, events, limitMs) <= 0) {
        fail(err, ETIME);
        return false;
    }
    return receive(urgent, err);
}

// A record that has come may hold more than was read so far, which no wait would tell: so reading
// is tried before waiting.
bool ExtSocketClass::awaitProtected(long limitMs, int& err) noexcept {
    const int before = readBufferUsed;
    bool urgent = false;
    if (!receive(urgent, err) || readBufferUsed != before) {
        return err == 0;
    }
    if (waitFor(theSocket, channel_->events(), limitMs) <= 0) {
        fail(err, ETIME);
        return false;
    }
    return receive(urgent, err);
}

int ExtSocketClass::ReadLine(char* buf, int bufsize, long timeoutMs, int& err) noexcept {
    err = extendedError = 0;
    if (theSocket < 0) {
        return fail(err, EBADF);
    }
    checkDescriptor(contractLine(289));
    // Not the wall clock: one that is set back would hold the walker as much longer.
    const auto end = Clock::now() + std::chrono::seconds(std::min<long>(timeoutMs / 1000, INT_MAX));
    bool urgent = true;
    int length = getLine(buf, bufsize);
    while (length < 0) {
        if (!awaitMore(timeoutMs, urgent, err)) {
            return 0;
        }
        length = getLine(buf, bufsize);
        if (length < 0 && end <= Clock::now()) {
            return fail(err, ETIME);
        }
    }
    return length;
}

int ExtSocketClass::getLine(char* buf, int bufsize) noexcept {
    if (readBufferUsed < 0 || readBufferUsed >= kReadBufferSize) {
        assert_failure("readBufferUsed >=0 && readBufferUsed < sizeof(readBuffer)", kUnit,
                       contractLine(238));
    }
    // The ending of the line before may be all there is.
    if (readBufferUsed < 2) {
        return -1;
    }
    char* const end = readBuffer.data() + readBufferUsed;
    // The ending of the line before: it stays in the buffer until now, so that an LF that arrives
    // after its CR makes no empty line.
    char* begin = readBuffer.data();
    if (isLineEnd(*begin)) {
        begin += begin[0] == '\r' && begin[1] == '\n' ? 2 : 1;
    }
    char* const stop = std::find_if(begin, end, isLineEnd);
    if (stop == end) {
        return -1;
    }
    const auto length = static_cast<int>(stop - begin);
    if (bufsize <= length) {
        assert_failure("bufsize > length", kUnit, contractLine(260));
    }
    std::copy(begin, stop, buf);
    buf[length] = '\0';
    readBufferUsed = static_cast<std::int32_t>(end - stop);
    std::memmove(readBuffer.data(), stop, static_cast<std::size_t>(readBufferUsed));
    readBuffer[static_cast<std::size_t>(readBufferUsed)] = '\0';
    return length;
}

// Sending is tried before waiting: the socket nearly always has room, and a refusal costs nothing.
// A peer that is gone must be an error here and not a signal that ends the run.
int ExtSocketClass::WriteN(const char* buf, int len, long timeoutMs, int& err) noexcept {
    extendedError = 0;
    if (theSocket < 0) {
        return EBADF;
    }
    checkDescriptor(contractLine(359));
    err = 0;
    int sent = 0;
    while (sent < len) {
        if (Email::Alarm::hasExpired()) {
            fail(err, ETIME);
            break;
        }
        if (timeoutMs < 0) {
            return 0;
        }
        const ssize_t n = sendSome(buf + sent, static_cast<std::size_t>(len - sent));
        if (n >= 0) {
            sent += static_cast<int>(n);
        } else if (!nothingYet(errno)) {
            err = errorCode(-1);
            break;
        } else if (waitToSend(timeoutMs) < 1) {
            return 0;
        }
    }
    return sent;
}

int ExtSocketClass::ReadFrom(char* buf, int& got, int len, int flags, sockaddr* from, int& fromLen,
                             int&) noexcept {
    fromLen = 0;
    if (theSocket < 0) {
        return EBADF;
    }
    checkDescriptor(contractLine(197));
    int ready = 0;
    do {
        errno = 0;
        ready = waitFor(theSocket, POLLIN | POLLPRI, kDatagramWaitMs);
    } while (ready < 0 && nothingYet(errno));
    if (ready < 1) {
        return errorCode(-1);
    }
    socklen_t size = 0;
    got = static_cast<int>(::recvfrom(theSocket, buf, static_cast<std::size_t>(len),
                                      flags | MSG_DONTWAIT, from, &size));
    fromLen = static_cast<int>(size);
    return got < 0 ? errorCode(-1) : 0;
}

int ExtSocketClass::WriteTo(const char* buf, int len, long timeoutMs, int flags, const sockaddr* to,
                            unsigned toLen, int& err) noexcept {
    if (theSocket < 0) {
        return EBADF;
    }
    checkDescriptor(contractLine(407));
    err = 0;
    if (waitFor(theSocket, POLLOUT, timeoutMs) < 1) {
        return 0;
    }
    const ssize_t n = ::sendto(theSocket, buf, static_cast<std::size_t>(len),
                               flags | MSG_DONTWAIT | MSG_NOSIGNAL, to, toLen);
    if (n < 0) {
        err = errorCode(-1);
        return 0;
    }
    extendedError = 0;
    return static_cast<int>(n);
}

void ExtSocketClass::test() {
    const auto report = [](const char* step, int err) {
        if (err != 0) {
            std::printf("Operation %s failed with %d \"%s\"\n", step, err, std::strerror(err));
        }
    };
    ExtSocketClass tcp;
    ExtSocketClass unused;
    int err = 0;
    tcp.Create(err);
    report("tcp.Create()", err);
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_port = htons(9000);
    local.sin_addr.s_addr = htonl(INADDR_ANY);
    tcp.Bind(reinterpret_cast<const sockaddr*>(&local), sizeof local, err);
    report("tcp.Bind()", err);
    tcp.Connect("localhost", 25, err, 0);
    // The step has always been printed under this name; scripts look for it.
    report("cp.Connect()", err);
    std::printf("ExtSocketClass::test() completed\n");
}

std::ostream& operator<<(std::ostream& out, const escstring& text) {
    static constexpr std::string_view kSpecial = "\a\b\t\n\v\f\r\"'\\";
    static constexpr std::string_view kLetters = "abtnvfr\"'\\";
    for (const char* p = text.text_; *p != '\0'; ++p) {
        const std::size_t at = kSpecial.find(*p);
        if (at == std::string_view::npos) {
            out.put(*p);
        } else {
            out.put('\\').put(kLetters[at]);
        }
    }
    return out;
}
