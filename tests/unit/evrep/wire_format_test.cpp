// The worked examples of docs/wire-format.md are what the library writes.
#include "support.h"

#include "fwall/DaemonMsg.h"
#include "fwall/context.h"
#include "fwall/log.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

// That the fields hold what the explanations say is seen in golden/damaged.txt.
TEST(WireFormat, EventAndFrameExamplesAreWhatTheLibraryWrites) {
    const Bytes example = block(WIRE_FORMAT, "event");
    GW_EVENT event;
    EXPECT_TRUE(readAll(example, event));
    EXPECT_EQ(archived(event), example);
    CTransfer transfer;
    EXPECT_EQ(transfer.Send(event), 0);
    EXPECT_EQ(handedOut(transfer), block(WIRE_FORMAT, "frame"));
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

TEST(WireFormat, LogExampleIsWhatTheLibraryWrites) {
    UNIQUE_DATA_T data;
    data.messageId = 11502;
    data.tag = "cfg";
    data.lineNumber = 17;
    strcpy(data.extra, "a,b");
    const Connection connection;
    DaemonMsg message =
        makeDaemonMsg(Service(), &connection, data, 3, "cfgerr: invalid value 100%, line 17");
    message.time = 1700000000;
    message.pid = 4711;
    EXPECT_EQ(block(WIRE_FORMAT, "log"), copy(std::as_bytes(std::span(&message, 1))));
}

} // namespace
