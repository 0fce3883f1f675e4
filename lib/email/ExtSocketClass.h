// One socket with a connect of fixed wait, a line reader and a writer under time limits. Errors are
// errno numbers (0: none), given through an out-parameter and kept in the object. Nothing throws.
#pragma once

#include "fwall/UniqueFd.h"

#include <sys/socket.h>

#include <array>
#include <cstdint>
#include <iosfwd>

class ExtSocketClass {
public:
    static constexpr int kReadBufferSize = 1028; // bytes, with the terminator

    ExtSocketClass() noexcept = default;
    virtual ~ExtSocketClass();
    ExtSocketClass(const ExtSocketClass&) = delete;
    ExtSocketClass& operator=(const ExtSocketClass&) = delete;

    // Stores errno, or `dflt` when errno is 0, as the error and returns it.
    int errorCode(int dflt) noexcept;

    // Closes what is open and makes a new (TCP) socket in blocking mode, close-on-exec.
    void Create(int& err) noexcept;
    void Create(int domain, int type, int protocol, int& err) noexcept;

    void Bind(const sockaddr* address, unsigned len, int& err) noexcept;

    // Connects within 30 seconds, whatever other limits say. 99 (EADDRNOTAVAIL) when there was no
    // answer.
    void Connect(const sockaddr* address, unsigned short len, int& err) noexcept;
    // By name or dotted address; port in host order; the last argument is ignored.
    void Connect(const char* host, unsigned short port, int& err, int unused) noexcept;

    // Closes and discards unread input. The result of close, or the negative descriptor.
    int Close() noexcept;

    [[nodiscard]] int GetExErr() const noexcept { return extendedError; }

    // One line without its ending, terminated, into `buf`; returns its length. 0 with err 62
    // (ETIME) after the limit, 61 (ENODATA) when the peer closed, 9 without a socket. Each wait
    // lasts up to the full limit; the whole call ends once the limit's whole seconds have passed.
    int ReadLine(char* buf, int bufsize, long timeoutMs, int& err) noexcept;

    // A complete line that is already held, or -1. A line that does not fit `bufsize` ends the run.
    int getLine(char* buf, int bufsize) noexcept;

    // Sends all, each wait lasting up to the limit. Returns the bytes sent; a time-out shows only
    // as a short count. 62 when the delivery alarm has fired. Without a socket: returns 9 and
    // leaves err alone.
    int WriteN(const char* buf, int len, long timeoutMs, int& err) noexcept;

    // Datagrams: a fixed 2-second wait on receipt. 0 or an error number.
    int ReadFrom(char* buf, int& got, int len, int flags, sockaddr* from, int& fromLen,
                 int& unused) noexcept;
    // Returns the bytes sent, 0 on failure.
    int WriteTo(const char* buf, int len, long timeoutMs, int flags, const sockaddr* to, unsigned toLen,
                int& err) noexcept;

    // Connects to the local mail port from port 9000 and prints each step that failed.
    static void test();

protected:
    std::int32_t theSocket = -1;

private:
    std::int32_t extendedError = 0;
    std::array<char, kReadBufferSize> readBuffer{};
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
