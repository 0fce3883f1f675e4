// The record that the standard-log collector takes: 1616 bytes, integers in host byte order, texts
// padded with NUL bytes. The same bytes on 32-bit and 64-bit hosts; other programs read them.
#pragma once

#include <cstddef>
#include <cstdint>

class CConnectionContext;
class CServiceContext;
struct UNIQUE_DATA_T;

struct DaemonMsg {
    std::int32_t size = 1616;
    std::int32_t version = 1;
    std::int32_t messageId = 501;
    std::int32_t serviceType = 3;
    std::uint32_t time = 0; // seconds since the epoch, low 32 bits
    std::int32_t priority = 1024;
    std::int32_t param1 = -1;
    std::int32_t param2 = -1;
    std::int32_t param3 = -1;
    std::uint16_t srcPort = 0;
    std::uint16_t dstPort = 0;
    std::uint16_t mappedDstPort = 0;
    std::uint16_t reserved = 0;
    std::int32_t pid = 0;
    char connectionId[32] = {}; // may fill the field without a terminator, as detail may
    std::int32_t lineNumber = 0;
    std::int32_t protocol = 0;
    char srcAddr[16] = {};
    char dstAddr[16] = {};
    char serviceName[41] = {};
    char user[21] = {}; // escaped, as extra, policy and text are
    char tag[21] = {};
    char detail[64] = {};
    char extra[256] = {};
    char policy[65] = {};
    std::int32_t textLength = 0; // bytes stored in text
    char text[1024] = {};
};

static_assert(sizeof(DaemonMsg) == 1616);
static_assert(offsetof(DaemonMsg, messageId) == 8 && offsetof(DaemonMsg, serviceType) == 12);
static_assert(offsetof(DaemonMsg, time) == 16 && offsetof(DaemonMsg, priority) == 20);
static_assert(offsetof(DaemonMsg, param1) == 24 && offsetof(DaemonMsg, param3) == 32);
static_assert(offsetof(DaemonMsg, srcPort) == 36 && offsetof(DaemonMsg, dstPort) == 38);
static_assert(offsetof(DaemonMsg, mappedDstPort) == 40 && offsetof(DaemonMsg, reserved) == 42);
static_assert(offsetof(DaemonMsg, pid) == 44 && offsetof(DaemonMsg, connectionId) == 48);
static_assert(offsetof(DaemonMsg, lineNumber) == 80 && offsetof(DaemonMsg, protocol) == 84);
static_assert(offsetof(DaemonMsg, srcAddr) == 88 && offsetof(DaemonMsg, dstAddr) == 104);
static_assert(offsetof(DaemonMsg, serviceName) == 120 && offsetof(DaemonMsg, user) == 161);
static_assert(offsetof(DaemonMsg, tag) == 182 && offsetof(DaemonMsg, detail) == 203);
static_assert(offsetof(DaemonMsg, extra) == 267 && offsetof(DaemonMsg, policy) == 523);
static_assert(offsetof(DaemonMsg, textLength) == 588 && offsetof(DaemonMsg, text) == 592);

// Fills a record, with the time and process id of the call. Each text is cut to its field: 15 bytes
// of an address, 40 of the service's name, 20 of the tag and of the user, 63 of the policy, 255 of
// extra, 1023 of the text. Escaped fields have their commas escaped as well, and an escape that
// does not fit whole is left out. The fields of a null connection stay zero.
DaemonMsg makeDaemonMsg(const CServiceContext& service, const CConnectionContext* connection,
                        const UNIQUE_DATA_T& data, int priority, const char* text);
