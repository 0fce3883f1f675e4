// The server's side of TLS on connections that do not block.
#pragma once

#include <openssl/ssl.h>
#include <sys/types.h>

#include <cstddef>
#include <memory>
#include <string_view>

class TlsSession {
public:
    // Takes over what goes over the socket from now on; the socket stays the caller's.
    TlsSession(SSL_CTX* context, int fd);

    // As recv(2), the handshake being made on the way.
    ssize_t receive(char* out, std::size_t size);
    void send(std::string_view text);

    // True while there is something to receive that the socket does not tell of any more.
    [[nodiscard]] bool pending() const noexcept { return SSL_has_pending(session_.get()) == 1; }

private:
    std::unique_ptr<SSL, decltype(&SSL_free)> session_;
};

class TlsServer {
public:
    // With the certificate and key in a PEM file; offered() is false without one.
    explicit TlsServer(const char* file);

    [[nodiscard]] bool offered() const noexcept { return context_ != nullptr; }
    [[nodiscard]] std::unique_ptr<TlsSession> begin(int fd) const;

private:
    std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> context_;
};
