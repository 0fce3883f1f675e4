// A socket as OpenSSL reads and writes it: never waiting, and never raising SIGPIPE, which its own
// kind would do when a peer is gone.
#pragma once

#include <openssl/bio.h>

namespace Email {

// The socket stays the caller's. Null when there is no memory.
[[nodiscard]] BIO* newSocketBio(int socket) noexcept;

} // namespace Email
