// TLS as the gateway sees it. The library behind it lives in a module of its own, retryer-tls.so,
// which is loaded when the rule table asks for TLS: linked, it would cost every run about a
// millisecond and 1.8 MB. So this header is all that both sides share, and nothing here waits, logs
// or ends the run: time limits and the alarm are the caller's.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Email {

enum class TlsResult {
    Done,      // something was done
    WantRead,  // nothing yet: again once the socket can be read
    WantWrite, // nothing yet: again once the socket can be written
    Closed,    // the peer has said that nothing more will come
    Failed,    // the session is lost; trouble() says why
};

struct TlsTarget {
    std::string name;    // the server's name, asked for (SNI) and verified; or its dotted address
    bool verify = false; // the handshake fails unless chain and name are good
    // With any, the handshake fails unless one of them matches (RFC 7671), whatever the store
    // holds; as on the wire, a byte each for usage, selector and matching type in front. When none
    // can be used, anybody will do.
    std::vector<std::string> tlsa{};
    std::vector<std::string> otherNames{}; // that a certificate may also have, where `tlsa` asks
};

// Who the peer was found to be.
enum class TlsProof {
    None,      // anybody
    Authority, // chain and name are good
    Dane,      // it matches one of the target's records
};

// One session over a connected socket, which it neither owns nor waits for.
class TlsSession {
public:
    TlsSession() = default;
    TlsSession(const TlsSession&) = delete;
    TlsSession& operator=(const TlsSession&) = delete;
    virtual ~TlsSession() = default;

    // Takes the handshake as far as it goes; Done when it is complete.
    virtual TlsResult handshake() noexcept = 0;

    // Done with `done` above 0 bytes read or written. An interrupted write is repeated with the
    // same bytes.
    virtual TlsResult read(char* to, std::size_t room, std::size_t& done) noexcept = 0;
    virtual TlsResult write(const char* from, std::size_t size, std::size_t& done) noexcept = 0;

    // Tells the peer that nothing more will come, if that can be done at once.
    virtual void close() noexcept = 0;

    // After the handshake: "TLSv1.3/TLS_AES_256_GCM_SHA384", and who the peer is, which is found
    // out even where it is not asked for.
    [[nodiscard]] virtual std::string protocol() const = 0;
    [[nodiscard]] virtual TlsProof proof() const noexcept = 0;

    // Why a step failed, in a few printable words.
    [[nodiscard]] virtual std::string trouble() const = 0;
};

// One exchange in which we prove who we are. Texts are as they are before base64.
class SaslExchange {
public:
    SaslExchange() = default;
    SaslExchange(const SaslExchange&) = delete;
    SaslExchange& operator=(const SaslExchange&) = delete;
    virtual ~SaslExchange() = default;

    [[nodiscard]] virtual std::string first() const = 0;

    // What is said to the server's challenge; nothing when that is not as it must be.
    [[nodiscard]] virtual std::optional<std::string> answer(std::string_view challenge) = 0;

    // True when the server's last words prove that it knows the password.
    [[nodiscard]] virtual bool accepts(std::string_view final) const = 0;
};

// What all sessions of a run share: whom to trust and who we are.
class TlsContext {
public:
    TlsContext() = default;
    TlsContext(const TlsContext&) = delete;
    TlsContext& operator=(const TlsContext&) = delete;
    virtual ~TlsContext() = default;

    // Null when there is no memory. The context must outlive the session.
    virtual std::unique_ptr<TlsSession> start(int socket, const TlsTarget& target) = 0;

    // SCRAM-SHA-256; null when there is no randomness to be had.
    virtual std::unique_ptr<SaslExchange> scram(std::string_view user,
                                                std::string_view password) = 0;
};

// The module's one entry, under the name kTlsEntry. The files are in PEM form; `authorities` null
// means the system's store, `certificate` (chain and key) null that we show none. Null when a file
// cannot be used: `trouble` says which and why.
using TlsEntry = TlsContext* (*)(const char* authorities, const char* certificate,
                                 std::string& trouble);
inline constexpr const char* kTlsModule = "retryer-tls.so";
inline constexpr const char* kTlsEntry = "retryerTlsOpen2";

} // namespace Email
