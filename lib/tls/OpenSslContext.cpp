// The module's entry: whom the gateway trusts and who it is, for all sessions of a run.
#include "tls/OpenSslSession.h"
#include "tls/ScramClient.h"
#include "tls/Tls.h"

#include <openssl/err.h>

namespace Email {

namespace {

struct Deleter {
    void operator()(SSL_CTX* context) const noexcept { SSL_CTX_free(context); }
};
using Context = std::unique_ptr<SSL_CTX, Deleter>;

class OpenSslContext final : public TlsContext {
public:
    explicit OpenSslContext(Context context) noexcept : context_(std::move(context)) {}

    std::unique_ptr<TlsSession> start(int socket, const TlsTarget& target) override {
        auto session = std::make_unique<OpenSslSession>(context_.get(), socket, target);
        return session->ready() ? std::move(session) : nullptr;
    }

    std::unique_ptr<SaslExchange> scram(std::string_view user, std::string_view password) override {
        const std::string nonce = newNonce();
        return nonce.empty() ? nullptr : std::make_unique<ScramClient>(user, password, nonce);
    }

private:
    Context context_;
};

Context makeContext() noexcept {
    Context context(SSL_CTX_new(TLS_client_method()));
    if (context == nullptr || SSL_CTX_dane_enable(context.get()) != 1 ||
        SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION) != 1) {
        return nullptr;
    }
    SSL_CTX_set_options(context.get(), SSL_OP_NO_COMPRESSION | SSL_OP_NO_RENEGOTIATION);
    SSL_CTX_set_mode(context.get(), SSL_MODE_ENABLE_PARTIAL_WRITE |
                                        SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER |
                                        SSL_MODE_RELEASE_BUFFERS);
    SSL_CTX_set_session_cache_mode(context.get(), SSL_SESS_CACHE_OFF);
    return context;
}

bool trust(SSL_CTX* context, const char* authorities) noexcept {
    return authorities == nullptr ? SSL_CTX_set_default_verify_paths(context) == 1
                                  : SSL_CTX_load_verify_file(context, authorities) == 1;
}

bool present(SSL_CTX* context, const char* file) noexcept {
    return file == nullptr || (SSL_CTX_use_certificate_chain_file(context, file) == 1 &&
                               SSL_CTX_use_PrivateKey_file(context, file, SSL_FILETYPE_PEM) == 1 &&
                               SSL_CTX_check_private_key(context) == 1);
}

std::string complaint(const char* file) {
    const char* const reason = ERR_reason_error_string(ERR_peek_error());
    return std::string(file == nullptr ? "the system's store" : file) + ": " +
           (reason == nullptr ? "cannot be used" : reason);
}

} // namespace

} // namespace Email

extern "C" __attribute__((visibility("default"))) Email::TlsContext*
retryerTlsOpen2(const char* authorities, const char* certificate, std::string& trouble) {
    ERR_clear_error();
    Email::Context context = Email::makeContext();
    if (context == nullptr) {
        trouble = "TLS cannot be set up";
    } else if (!Email::trust(context.get(), authorities)) {
        trouble = Email::complaint(authorities);
    } else if (!Email::present(context.get(), certificate)) {
        trouble = Email::complaint(certificate);
    } else {
        return std::make_unique<Email::OpenSslContext>(std::move(context)).release();
    }
    return nullptr;
}
