#include "Tls.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>

TlsSession::TlsSession(SSL_CTX* context, int fd) : session_(SSL_new(context), SSL_free) {
    SSL_set_fd(session_.get(), fd);
    SSL_set_accept_state(session_.get());
}

ssize_t TlsSession::receive(char* out, std::size_t size) {
    std::size_t got = 0;
    if (SSL_read_ex(session_.get(), out, size, &got) == 1) {
        return static_cast<ssize_t>(got);
    }
    const int error = SSL_get_error(session_.get(), 0);
    const bool later = error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE;
    errno = later ? EAGAIN : ECONNRESET;
    return later ? -1 : 0;
}

void TlsSession::send(std::string_view text) {
    std::size_t sent = 0;
    SSL_write_ex(session_.get(), text.data(), text.size(), &sent);
}

TlsServer::TlsServer(const char* file) : context_(nullptr, SSL_CTX_free) {
    if (file == nullptr) {
        return;
    }
    context_.reset(SSL_CTX_new(TLS_server_method()));
    if (SSL_CTX_use_certificate_chain_file(context_.get(), file) != 1 ||
        SSL_CTX_use_PrivateKey_file(context_.get(), file, SSL_FILETYPE_PEM) != 1) {
        std::fprintf(stderr, "bench_sink: no certificate and key in %s\n", file);
        std::exit(1);
    }
}

std::unique_ptr<TlsSession> TlsServer::begin(int fd) const {
    return std::make_unique<TlsSession>(context_.get(), fd);
}
