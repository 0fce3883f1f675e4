// The run's one TLS context, of the module that is loaded when it is first asked for.
#pragma once

#include "tls/Tls.h"

#include <string>

namespace Email {

// The context for these two PEM files (empty: the system's store; no certificate of our own), made
// once: later calls get the same, whatever they name. Null with `trouble` set, also on later calls,
// when the program was built without TLS, the module cannot be loaded or a file cannot be used.
[[nodiscard]] TlsContext* tlsContext(const std::string& authorities, const std::string& certificate,
                                     std::string& trouble);

} // namespace Email
