#include "fwall/CLogBase.h"

#include "fwall/DaemonMsg.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include <syslog.h>
#include <unistd.h>

namespace {
constexpr std::string_view kCollectorPath = "/var/run/stdlog";
static_assert(sizeof(sockaddr_un) == 110);
} // namespace

CLogBase::CLogBase(int options) {
    address_.sun_family = AF_UNIX;
    kCollectorPath.copy(address_.sun_path, sizeof address_.sun_path - 1);
    if ((options & LOG_NDELAY) == 0) {
        return;
    }
    if (const int error = openSocket(); error != 0) {
        syslog(LOG_ERR, "Failed to create stdlog socket %s, EXIT FROM SENDLOG",
               std::strerror(error));
        std::exit(1);
    }
}

int CLogBase::openSocket() noexcept {
    socket_.reset(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    return socket_.valid() ? 0 : errno;
}

int CLogBase::OpenLogFile() {
    const int error = openSocket();
    if (error != 0) {
        syslog(LOG_ERR, "Failed to create stdlog socket %s", std::strerror(error));
    }
    return error;
}

void CLogBase::SendLogStruct(const DaemonMsg& message) {
    if (!socket_.valid()) {
        if (const int error = OpenLogFile(); error != 0) {
            syslog(LOG_ERR, "Failed to open stdlog socket %s, EXIT FROM SENDLOG.",
                   std::strerror(error));
            std::exit(error);
        }
    }
    const auto* address = reinterpret_cast<const sockaddr*>(&address_);
    while (::sendto(socket_.get(), &message, sizeof message, MSG_NOSIGNAL, address,
                    sizeof address_) < 0) {
        // Full buffers pass, and a line that waits is not lost; nothing else is tried again.
        if (errno != ENOBUFS) {
            syslog(LOG_ERR, "Error sending std log msg: %s\n", std::strerror(errno));
            return;
        }
        ::sleep(1);
    }
}
