#include "tls/SocketBio.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstdint>
#include <memory>

namespace Email {

namespace {

int socketOf(BIO* bio) noexcept {
    return static_cast<int>(reinterpret_cast<std::intptr_t>(BIO_get_data(bio)));
}

bool nothingYet() noexcept {
    return errno == EAGAIN || errno == EINTR;
}

int readSocket(BIO* bio, char* to, int room) noexcept {
    BIO_clear_retry_flags(bio);
    const ssize_t n = ::recv(socketOf(bio), to, static_cast<std::size_t>(room), MSG_DONTWAIT);
    if (n < 0 && nothingYet()) {
        BIO_set_retry_read(bio);
    }
    return static_cast<int>(n);
}

int writeSocket(BIO* bio, const char* from, int size) noexcept {
    BIO_clear_retry_flags(bio);
    const ssize_t n =
        ::send(socketOf(bio), from, static_cast<std::size_t>(size), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (n < 0 && nothingYet()) {
        BIO_set_retry_write(bio);
    }
    return static_cast<int>(n);
}

long control(BIO*, int command, long, void*) noexcept {
    return command == BIO_CTRL_FLUSH ? 1 : 0; // nothing is held back here
}

struct MethodDeleter {
    void operator()(BIO_METHOD* method) const noexcept { BIO_meth_free(method); }
};

std::unique_ptr<BIO_METHOD, MethodDeleter> makeMethod() noexcept {
    std::unique_ptr<BIO_METHOD, MethodDeleter> method(
        BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "retryer socket"));
    if (method != nullptr) {
        BIO_meth_set_read(method.get(), readSocket);
        BIO_meth_set_write(method.get(), writeSocket);
        BIO_meth_set_ctrl(method.get(), control);
    }
    return method;
}

} // namespace

BIO* newSocketBio(int socket) noexcept {
    static const auto method = makeMethod();
    BIO* const bio = method == nullptr ? nullptr : BIO_new(method.get());
    if (bio != nullptr) {
        // NOLINTNEXTLINE(performance-no-int-to-ptr): kept for us by the library, never followed.
        BIO_set_data(bio, reinterpret_cast<void*>(static_cast<std::intptr_t>(socket)));
        BIO_set_init(bio, 1);
    }
    return bio;
}

} // namespace Email
