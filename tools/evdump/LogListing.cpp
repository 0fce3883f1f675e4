#include "LogListing.h"

#include "fwall/DaemonMsg.h"
#include "libevrep/eventNames.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr std::size_t recordSize = sizeof(DaemonMsg);
constexpr std::int32_t recordVersion = 1;

// Of a field that may fill its room without a terminator.
template<std::size_t Size>
std::string_view fieldText(const char (&field)[Size]) {
    return {field, strnlen(field, Size)};
}

template<std::size_t Size>
void put(RecordWriter& writer, std::string_view name, const char (&field)[Size]) {
    if (field[0] != '\0')
        writer.text(name, fieldText(field));
}

void putConnection(RecordWriter& writer, const DaemonMsg& message) {
    writer.number("src_port", message.srcPort);
    writer.number("dst_port", message.dstPort);
    writer.number("mapped_dst_port", message.mappedDstPort);
    put(writer, "connection", message.connectionId);
    put(writer, "src", message.srcAddr);
    put(writer, "dst", message.dstAddr);
    put(writer, "user", message.user);
    put(writer, "policy", message.policy);
}

void put(RecordWriter& writer, const DaemonMsg& message) {
    writer.number("time", message.time);
    writer.coded("message", message.messageId, eventName(message.messageId));
    // The facility stands in the bits above the severity.
    constexpr std::int32_t severityBits = 7;
    writer.coded("priority", message.priority, priorityName(message.priority & severityBits));
    put(writer, "service", message.serviceName);
    writer.number("service_type", message.serviceType);
    writer.number("protocol", message.protocol);
    writer.number("pid", message.pid);
    putConnection(writer, message);
    put(writer, "tag", message.tag);
    writer.number("param1", message.param1);
    writer.number("param2", message.param2);
    writer.number("param3", message.param3);
    writer.number("line", message.lineNumber);
    put(writer, "detail", message.detail);
    put(writer, "extra", message.extra);
    writer.number("text_length", message.textLength);
    writer.text("text", fieldText(message.text));
}

} // namespace

void LogListing::feed(std::span<const std::byte> bytes) {
    while (!bytes.empty()) {
        const auto piece = bytes.first(std::min(bytes.size(), recordSize - pending_.size()));
        pending_.insert(pending_.end(), piece.begin(), piece.end());
        bytes = bytes.subspan(piece.size());
        if (pending_.size() == recordSize) {
            list(pending_);
            pending_.clear();
        }
    }
}

void LogListing::finish() {
    if (!pending_.empty())
        damage(pending_.size(), "the input ends after " + std::to_string(pending_.size()) +
                                    " of the 1616 bytes of a record");
}

void LogListing::datagram(std::span<const std::byte> bytes, std::size_t length) {
    if (length == recordSize)
        return list(bytes);
    damage(0, "a datagram of " + std::to_string(length) + " bytes instead of 1616");
    offset_ += length;
}

void LogListing::list(std::span<const std::byte> record) {
    DaemonMsg message;
    std::memcpy(&message, record.data(), recordSize);
    if (message.size != std::int32_t{recordSize}) {
        damage(offsetof(DaemonMsg, size),
               "size is " + std::to_string(message.size) + " instead of 1616");
    } else if (message.version != recordVersion) {
        damage(offsetof(DaemonMsg, version),
               "version is " + std::to_string(message.version) + " instead of 1");
    } else {
        writer_.begin("log", offset_);
        put(writer_, message);
        writer_.end();
    }
    offset_ += recordSize;
}

void LogListing::damage(std::size_t at, std::string_view what) {
    damaged_ = true;
    writer_.damage(offset_ + at, what);
}
