// The worked examples of docs/wire-format.md are what the library writes.
#include "bytes.h"

#include "fwall/DaemonMsg.h"
#include "fwall/context.h"
#include "fwall/log.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>

namespace {

// The bytes of the block marked `name`. A line is: offset | bytes | explanation; the bytes are
// hexadecimal pairs, one pair "* count", or "@" and the name of another block.
Bytes example(const std::string& name) {
    std::ifstream document(WIRE_FORMAT);
    Bytes bytes;
    bool inside = false;
    for (std::string line; std::getline(document, line);) {
        if (line.starts_with("```")) {
            inside = line == "```wire-" + name;
            continue;
        }
        if (!inside)
            continue;
        EXPECT_EQ(std::stoul(line.substr(0, 4), nullptr, 16), bytes.size()) << line;
        const std::string field = line.substr(7, line.find(" | ", 7) - 7);
        if (field.front() == '@')
            append(bytes, example(field.substr(1, field.find(' ') - 1)));
        else if (const std::size_t times = field.find('*'); times != std::string::npos)
            bytes.resize(bytes.size() + std::stoul(field.substr(times + 1)));
        else
            append(bytes, hex(field));
        EXPECT_GT(line.size(), line.rfind(" | ") + 3) << "every byte has its explanation: " << line;
    }
    return bytes;
}

GW_EVENT exampleEvent() {
    GW_EVENT event;
    event.m_EventID = static_cast<ReportableEvent>(128);
    event.m_intendedAudience = 64;
    event.m_CommonContext.setComputerName("mx1");
    event.m_CommonContext.m_tmLocal = 1700003600;
    event.m_CommonContext.m_tmGMT = 1700000000;
    event.m_EventContext.setSubSystemName("retryer");
    event.m_EventContext.m_Severity = 1;
    event.m_PropertyBag.Set(EPROP_ERROR_CODE, 28);
    event.m_PropertyBag.Set(EPROP_IDENTITY, "fileQ7xK2a");
    event.m_iUnionDiscriminant = MANAGEMENT_CONTEXT;
    event.m_ManagementContext.create().m_iReasonID = Reason_WriteError;
    return event;
}

class Service : public CServiceContext {
    std::int32_t ServiceType() const override { return 3; }
    std::int32_t Protocol() const override { return 1; }
    const char* Name() const override { return "vorn"; }
    void SetName(const char*) override {}
    cfgrec* Config() const override { return nullptr; }
};

class Connection : public CConnectionContext {
    const char* Identifier() const override { return "c-000123"; }
    void Policy(char* name, std::size_t size) const override { snprintf(name, size, "default"); }
    std::uint16_t SourcePort() const override { return 40123; }
    std::uint16_t DestinationPort() const override { return 25; }
    std::uint16_t MappedDestinationPort() const override { return 10025; }
    const char* SourceAddress() const override { return "192.0.2.1"; }
    const char* DestinationAddress() const override { return "198.51.100.25"; }
    const char* User() const override { return "m\xc3\xbcller"; }
};

TEST(WireFormat, EventExampleIsWhatTheLibraryWrites) {
    EXPECT_EQ(example("event"), archived(exampleEvent()));
}

TEST(WireFormat, FrameExampleIsWhatTheLibraryWrites) {
    Bytes frame = framed(exampleEvent());
    const auto time = hex("00 f1 53 65");
    std::copy(time.begin(), time.end(), frame.begin() + 20);
    EXPECT_EQ(example("frame"), frame);
}

TEST(WireFormat, LogExampleIsWhatTheLibraryWrites) {
    UNIQUE_DATA_T data;
    data.messageId = 11502;
    data.tag = "cfg";
    data.lineNumber = 17;
    strcpy(data.extra, "a,b");
    const Service service;
    const Connection connection;
    DaemonMsg message =
        makeDaemonMsg(service, &connection, data, 3, "cfgerr: invalid value 100%, line 17");
    message.time = 1700000000;
    message.pid = 4711;
    EXPECT_EQ(example("log"), copy(std::as_bytes(std::span(&message, 1))));
}

} // namespace
