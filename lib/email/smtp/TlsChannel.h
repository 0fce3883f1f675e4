// A connection's bytes behind TLS, read and written as those of a socket: what stands above, the
// line reader and the writer, waits and limits as ever. Needs the module (email/smtp/TlsModule.h);
// nothing here ends the run.
#pragma once

#include "tls/Tls.h"

#include <sys/types.h>

#include <cstddef>
#include <memory>
#include <string>

namespace Email {

class TlsChannel {
public:
    // The socket, connected, stays the caller's and must outlive this; the session is not null.
    TlsChannel(std::unique_ptr<TlsSession> session, int socket) noexcept;

    // Ends the session politely, without waiting.
    ~TlsChannel();
    TlsChannel(const TlsChannel&) = delete;
    TlsChannel& operator=(const TlsChannel&) = delete;

    // Shakes hands; false with trouble() set when the peer is not what it should be, the connection
    // broke, `limitMs` have passed in all or the delivery alarm has fired.
    bool handshake(long limitMs);

    // As recv(2) and send(2) that do not wait: -1 with EAGAIN when the socket must be waited for,
    // with events() saying for what, -1 with EPROTO when the session is lost. A peer that ended the
    // session has ended the connection: 0.
    ssize_t receive(char* to, std::size_t room) noexcept;
    ssize_t send(const char* from, std::size_t size) noexcept;

    // What poll(2) must wait for: reading may have to write first, and the reverse.
    [[nodiscard]] short events() const noexcept { return events_; }

    // "TLSv1.3/TLS_AES_256_GCM_SHA384".
    [[nodiscard]] std::string protocol() const { return session_->protocol(); }
    [[nodiscard]] TlsProof proof() const noexcept { return session_->proof(); }
    // Why the handshake failed, or the session is lost; else empty.
    [[nodiscard]] std::string trouble() const {
        return trouble_.empty() ? session_->trouble() : trouble_;
    }

private:
    bool wants(TlsResult result) noexcept;
    ssize_t outcome(TlsResult result, std::size_t done) noexcept;

    std::unique_ptr<TlsSession> session_;
    int socket_;
    short events_ = 0;
    std::string trouble_;
};

} // namespace Email
