// One socket with a connect of fixed wait, a line reader and a writer under time limits. Errors are
// errno numbers (0: none), given through an out-parameter and kept in the object. Nothing throws,
// nothing is logged, and no wait is without a limit. Limits are milliseconds; a negative one is
// refused at once, as if the time had passed. A signal ends a wait like its limit does.
//
// Closed, Create(), open, Connect(), connected, ReadLine() and WriteN(), Close(), closed; an object
// serves any number of connections one after another. A descriptor of FD_SETSIZE or above ends the
// run, as in the gateway's other programs: it means that descriptors leak.
#pragma once

#include <sys/socket.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <iosfwd>
#include <memory>

namespace Email {
class TlsChannel;
} // namespace Email

class ExtSocketClass {
public:
    // Room for every line that ReadLine() can hand out, with its terminator.
    static constexpr int kReadBufferSize = 1028;

    ExtSocketClass() noexcept;
    virtual ~ExtSocketClass();
    ExtSocketClass(const ExtSocketClass&) = delete;
    ExtSocketClass& operator=(const ExtSocketClass&) = delete;

    // Stores errno, or `dflt` when errno is 0, as the error and returns it.
    int errorCode(int dflt) noexcept;

    // Closes what is open and makes a new (TCP) socket in blocking mode, close-on-exec.
    void Create(int& err) noexcept;
    void Create(int domain, int type, int protocol, int& err) noexcept;

    // bind(2). 9 (EBADF) without a socket.
    void Bind(const sockaddr* address, unsigned len, int& err) noexcept;

    // Connects within 30 seconds, whatever other limits say. 99 (EADDRNOTAVAIL) when there was no
    // answer, 9 (EBADF) without a socket, else the system's number (111 when refused). The socket
    // is back in blocking mode afterwards, with SO_KEEPALIVE, and small writes leave at once.
    void Connect(const sockaddr* address, unsigned short len, int& err) noexcept;

    // True when the last Connect() had no answer in time: its 99 is then no error of the system.
    [[nodiscard]] bool connectTimedOut() const noexcept { return connectTimedOut_; }

    // By name or dotted address; port in host order; the last argument is ignored. 2 (ENOENT), or
    // the resolver's errno, when the name does not resolve; only its first address is used.
    void Connect(const char* host, unsigned short port, int& err, int unused) noexcept;

    // Closes and discards unread input. The result of close(2), or the negative descriptor.
    int Close() noexcept;

    [[nodiscard]] int GetExErr() const noexcept { return extendedError; }

    // One line without its ending (CR LF, LF or CR), terminated, into `buf`; returns its length. 0
    // with err 62 (ETIME) after the limit, 61 (ENODATA) when the peer closed, 9 (EBADF) without a
    // socket. Each wait lasts up to the full limit; the whole call ends once the limit's whole
    // seconds have passed. A line of kReadBufferSize - 1 bytes or more never completes: 62.
    int ReadLine(char* buf, int bufsize, long timeoutMs, int& err) noexcept;

    // A complete line that is already held, or -1. A line that does not fit `bufsize` ends the run;
    // kReadBufferSize holds every line.
    int getLine(char* buf, int bufsize) noexcept;

    // Sends all, each wait lasting up to the limit. Returns the bytes sent. A time-out returns 0
    // and leaves err at 0: only a short count tells. err 62 when the delivery alarm has fired,
    // which is asked before each send. Without a socket: returns 9 and leaves err alone.
    int WriteN(const char* buf, int len, long timeoutMs, int& err) noexcept;

    // Puts TLS below ReadLine() and WriteN(), for a connection that has shaken hands; null takes it
    // off. What was read before it came in the clear and is thrown away: it may be another's words.
    // Returns how many bytes that were.
    int protect(std::unique_ptr<Email::TlsChannel> channel) noexcept;

    // True when something has come that was not read yet. Waits for nothing.
    [[nodiscard]] bool inputWaiting() noexcept;

    // Null while the connection is in the clear.
    [[nodiscard]] const Email::TlsChannel* channel() const noexcept { return channel_.get(); }

    // Receives one datagram, its length into `got`, waiting at most 2 seconds. 0 or an error number
    // (-1 after the wait). No address is stored; `fromLen` gets the length that it would have.
    int ReadFrom(char* buf, int& got, int len, int flags, sockaddr* from, int& fromLen,
                 int& unused) noexcept;

    // Sends one datagram; returns the bytes sent, 0 on failure (err 0 after the limit). Without a
    // socket: returns 9 and leaves err alone.
    int WriteTo(const char* buf, int len, long timeoutMs, int flags, const sockaddr* to,
                unsigned toLen, int& err) noexcept;

    // Connects to the local mail port from port 9000 and prints each step that failed.
    static void test();

protected:
    // Closed by Close() and by the destructor; not in an owner of its own, since the gateway's
    // other classes that derive from this one use the number.
    std::int32_t theSocket = -1;

private:
    void checkDescriptor(std::uint32_t line) const noexcept;
    int fail(int& err, int number) noexcept;
    void startConnect(const sockaddr* address, unsigned short len, int flags) noexcept;
    void finishConnect() noexcept;
    void takeSocketError() noexcept;
    [[nodiscard]] ssize_t receiveSome(char* to, std::size_t room) noexcept;
    [[nodiscard]] ssize_t sendSome(const char* from, std::size_t size) noexcept;
    [[nodiscard]] int waitToSend(long limitMs) const noexcept;
    bool awaitProtected(long limitMs, int& err) noexcept;
    bool receive(bool& urgent, int& err) noexcept;
    [[nodiscard]] int unread() const noexcept;
    bool awaitMore(long limitMs, bool& urgent, int& err) noexcept;

    std::unique_ptr<Email::TlsChannel> channel_;
    std::int32_t extendedError = 0;
    bool connectTimedOut_ = false;
    std::array<char, kReadBufferSize> readBuffer{}; // received, not handed out; always terminated
    std::int32_t readBufferUsed = 0;
};

// A text that is written to a stream with control characters, quotes and backslashes escaped.
class escstring {
public:
    explicit escstring(const char* text) noexcept : text_(text) {}
    friend std::ostream& operator<<(std::ostream& out, const escstring& text);

private:
    const char* text_;
};
