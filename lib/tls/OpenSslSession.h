// A TLS session of OpenSSL 3: TLS 1.2 and up, without compression and renegotiation.
#pragma once

#include "tls/Tls.h"

#include <openssl/ssl.h>

#include <cstddef>
#include <memory>
#include <string>

namespace Email {

class OpenSslSession final : public TlsSession {
public:
    // `ready()` is false when there was no memory, or the target's name cannot be one.
    OpenSslSession(SSL_CTX* context, int socket, const TlsTarget& target);

    [[nodiscard]] bool ready() const noexcept { return ready_; }

    TlsResult handshake() noexcept override;
    TlsResult read(char* to, std::size_t room, std::size_t& done) noexcept override;
    TlsResult write(const char* from, std::size_t size, std::size_t& done) noexcept override;
    void close() noexcept override;
    [[nodiscard]] std::string protocol() const override;
    [[nodiscard]] TlsProof proof() const noexcept override;
    [[nodiscard]] std::string trouble() const override { return trouble_; }

private:
    struct Deleter {
        void operator()(SSL* ssl) const noexcept { SSL_free(ssl); }
    };
    bool prepare(int socket, const TlsTarget& target) noexcept;
    bool expect(const std::string& name) noexcept;
    bool holdTo(const TlsTarget& target, bool& strict) noexcept;
    TlsResult judge(int result);
    void tellTrouble(int error);

    std::unique_ptr<SSL, Deleter> ssl_;
    bool ready_ = false;
    bool lost_ = false; // after a fatal error nothing may be sent, not even the farewell
    std::string trouble_;
};

} // namespace Email
