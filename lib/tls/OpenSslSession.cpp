#include "tls/OpenSslSession.h"

#include "tls/SocketBio.h"

#include <openssl/err.h>
#include <openssl/x509v3.h>

#include <arpa/inet.h>

#include <cerrno>
#include <cstring>

namespace Email {

namespace {

constexpr std::size_t kTlsaFixed = 3; // usage, selector, matching type

bool isAddress(const std::string& name) noexcept {
    in_addr unused{};
    return ::inet_pton(AF_INET, name.c_str(), &unused) == 1;
}

// SSL_set_tlsext_host_name(), whose macro takes no const text.
bool askFor(SSL* ssl, const std::string& name) noexcept {
    return SSL_ctrl(ssl, SSL_CTRL_SET_TLSEXT_HOSTNAME, TLSEXT_NAMETYPE_host_name,
                    const_cast<char*>(name.c_str())) == 1;
}

// Lets a handshake end whatever the certificate is; what was found is asked for afterwards.
int acceptAnybody(int, X509_STORE_CTX*) {
    return 1;
}

} // namespace

OpenSslSession::OpenSslSession(SSL_CTX* context, int socket, const TlsTarget& target)
    : ssl_(SSL_new(context)), ready_(ssl_ != nullptr && prepare(socket, target)) {}

bool OpenSslSession::prepare(int socket, const TlsTarget& target) noexcept {
    BIO* const bio = newSocketBio(socket);
    bool strict = target.verify;
    const bool named = target.tlsa.empty() ? expect(target.name) : holdTo(target, strict);
    if (bio == nullptr || (!named && (strict || !target.tlsa.empty()))) {
        BIO_free(bio);
        return false;
    }
    SSL_set_bio(ssl_.get(), bio, bio); // which owns it from here on
    SSL_set_verify(ssl_.get(), SSL_VERIFY_PEER, strict ? nullptr : acceptAnybody);
    SSL_set_connect_state(ssl_.get());
    return true;
}

// A name without its trailing dot, as certificates hold it. An empty name is nobody's.
bool OpenSslSession::expect(const std::string& full) noexcept {
    X509_VERIFY_PARAM* const param = SSL_get0_param(ssl_.get());
    const std::string name = full.ends_with('.') ? full.substr(0, full.size() - 1) : full;
    if (isAddress(name)) {
        return X509_VERIFY_PARAM_set1_ip_asc(param, name.c_str()) == 1;
    }
    X509_VERIFY_PARAM_set_hostflags(param, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
    return !name.empty() && askFor(ssl_.get(), name) &&
           X509_VERIFY_PARAM_set1_host(param, name.c_str(), name.size()) == 1;
}

// A record that names the server's own certificate says all: neither name nor date are looked at
// (RFC 7672, 3.1.1). `strict` when there is a record that can be used.
bool OpenSslSession::holdTo(const TlsTarget& target, bool& strict) noexcept {
    SSL* const ssl = ssl_.get();
    if (SSL_dane_enable(ssl, target.name.c_str()) <= 0) {
        return false;
    }
    SSL_dane_set_flags(ssl, DANE_FLAG_NO_DANE_EE_NAMECHECKS);
    SSL_set_hostflags(ssl, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
    for (const std::string& other : target.otherNames) {
        if (SSL_add1_host(ssl, other.c_str()) != 1) {
            return false;
        }
    }
    for (const std::string& record : target.tlsa) {
        const auto* const bytes = reinterpret_cast<const unsigned char*>(record.data());
        const int added = record.size() <= kTlsaFixed
                              ? 0
                              : SSL_dane_tlsa_add(ssl, bytes[0], bytes[1], bytes[2],
                                                  bytes + kTlsaFixed, record.size() - kTlsaFixed);
        strict = strict || added > 0;
    }
    return true;
}

TlsResult OpenSslSession::judge(int result) {
    if (result > 0) {
        return TlsResult::Done;
    }
    const int error = SSL_get_error(ssl_.get(), result);
    switch (error) {
    case SSL_ERROR_WANT_READ:
        return TlsResult::WantRead;
    case SSL_ERROR_WANT_WRITE:
        return TlsResult::WantWrite;
    case SSL_ERROR_ZERO_RETURN:
        return TlsResult::Closed;
    default:
        lost_ = true;
        tellTrouble(error);
        return TlsResult::Failed;
    }
}

// A certificate that was refused says more than the alert that follows from it.
void OpenSslSession::tellTrouble(int error) {
    const int system = errno;
    const unsigned long reason = ERR_peek_error();
    const long verdict = SSL_get_verify_result(ssl_.get());
    if (reason != 0 && ERR_GET_REASON(reason) == SSL_R_CERTIFICATE_VERIFY_FAILED) {
        trouble_ = X509_verify_cert_error_string(verdict);
    } else if (const char* words = reason == 0 ? nullptr : ERR_reason_error_string(reason)) {
        trouble_ = words;
    } else if (error == SSL_ERROR_SYSCALL && system != 0) {
        trouble_ = std::strerror(system);
    } else {
        trouble_ = "connection closed";
    }
}

TlsResult OpenSslSession::handshake() noexcept {
    ERR_clear_error();
    errno = 0;
    return judge(SSL_do_handshake(ssl_.get()));
}

TlsResult OpenSslSession::read(char* to, std::size_t room, std::size_t& done) noexcept {
    ERR_clear_error();
    errno = 0;
    return judge(SSL_read_ex(ssl_.get(), to, room, &done));
}

TlsResult OpenSslSession::write(const char* from, std::size_t size, std::size_t& done) noexcept {
    ERR_clear_error();
    errno = 0;
    return judge(SSL_write_ex(ssl_.get(), from, size, &done));
}

void OpenSslSession::close() noexcept {
    if (!lost_ && SSL_is_init_finished(ssl_.get()) != 0) {
        ERR_clear_error();
        SSL_shutdown(ssl_.get());
    }
}

std::string OpenSslSession::protocol() const {
    return std::string(SSL_get_version(ssl_.get())) + "/" + SSL_get_cipher_name(ssl_.get());
}

TlsProof OpenSslSession::proof() const noexcept {
    if (SSL_get0_peer_certificate(ssl_.get()) == nullptr ||
        SSL_get_verify_result(ssl_.get()) != X509_V_OK) {
        return TlsProof::None;
    }
    return SSL_get0_dane_authority(ssl_.get(), nullptr, nullptr) < 0 ? TlsProof::Authority
                                                                     : TlsProof::Dane;
}

} // namespace Email
