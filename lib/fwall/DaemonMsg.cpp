#include "fwall/DaemonMsg.h"

#include "fwall/context.h"
#include "fwall/hexesc.h"
#include "fwall/log.h"

#include <array>
#include <cstring>
#include <ctime>

#include <unistd.h>

namespace {

constexpr const char* kFurtherEscaped = ",";

// At most `limit` bytes of a text that may be null.
template<std::size_t N>
void copyField(char (&field)[N], const char* text, std::size_t limit) noexcept {
    if (text != nullptr) {
        std::memcpy(field, text, ::strnlen(text, limit < N ? limit : N));
    }
}

// `size` counts the terminator.
template<std::size_t N>
void escapeField(char (&field)[N], const char* text, std::size_t size = N) noexcept {
    hexescNonAsciiPlus(field, text, size < N ? size : N, kFurtherEscaped);
}

void fillConnection(DaemonMsg& message, const CConnectionContext& connection) {
    std::array<char, 128> policy{};
    connection.Policy(policy.data(), policy.size());
    copyField(message.connectionId, connection.Identifier(), 32);
    escapeField(message.policy, policy.data(), 64);
    message.srcPort = connection.SourcePort();
    message.dstPort = connection.DestinationPort();
    message.mappedDstPort = connection.MappedDestinationPort();
    // A dotted IPv4 address has 15 characters at most.
    copyField(message.srcAddr, connection.SourceAddress(), 15);
    copyField(message.dstAddr, connection.DestinationAddress(), 15);
    escapeField(message.user, connection.User());
}

void fillAttributes(DaemonMsg& message, const UNIQUE_DATA_T& data) noexcept {
    message.messageId = data.messageId;
    message.param1 = data.param1;
    message.param2 = data.param2;
    message.param3 = data.param3;
    message.lineNumber = data.lineNumber;
    copyField(message.tag, data.tag, 20);
    copyField(message.detail, data.detail, sizeof data.detail);
    // The array may be full, without a terminator of its own.
    std::array<char, sizeof data.extra + 1> extra{};
    std::memcpy(extra.data(), data.extra, ::strnlen(data.extra, sizeof data.extra));
    escapeField(message.extra, extra.data());
}

} // namespace

DaemonMsg makeDaemonMsg(const CServiceContext& service, const CConnectionContext* connection,
                        const UNIQUE_DATA_T& data, int priority, const char* text) {
    DaemonMsg message;
    escapeField(message.text, text);
    message.textLength = static_cast<std::int32_t>(std::strlen(message.text));
    message.time = static_cast<std::uint32_t>(std::time(nullptr));
    message.priority = priority;
    message.serviceType = service.ServiceType();
    message.protocol = service.Protocol();
    copyField(message.serviceName, service.Name(), 40);
    message.pid = ::getpid();
    // A message about the service as a whole has no connection.
    if (connection != nullptr) {
        fillConnection(message, *connection);
    }
    fillAttributes(message, data);
    return message;
}
