// The listing program, run as an operator runs it.
#include "bytes.h"

#include "fwall/DaemonMsg.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

struct Listing {
    int status;
    std::string output;
};

Listing evdump(const std::string& arguments) {
    FILE* pipe = popen((std::string(EVDUMP) + " " + arguments + " 2>&1").c_str(), "r");
    Listing run{};
    std::array<char, 4096> piece;
    while (const std::size_t got = fread(piece.data(), 1, piece.size(), pipe))
        run.output.append(piece.data(), got);
    const int status = pclose(pipe);
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return run;
}

class EvDump : public testing::Test {
protected:
    std::string file(std::span<const std::byte> bytes) {
        const std::string path = directory_ / "input";
        std::ofstream(path, std::ios::binary) << asText(bytes);
        return path;
    }
    EvDump() { std::filesystem::create_directory(directory_); }
    ~EvDump() override { std::filesystem::remove_all(directory_); }

    std::filesystem::path directory_ =
        std::filesystem::temp_directory_path() / ("evdump." + std::to_string(getpid()));
};

// With the time stamp zeroed.
Bytes sampleFrame() {
    GW_EVENT event;
    event.m_EventID = static_cast<ReportableEvent>(128);
    event.m_intendedAudience = 64;
    event.m_EventContext.m_Severity = 1;
    event.m_EventContext.setSubSystemName("retryer");
    event.m_PropertyBag.Set(EPROP_IDENTITY, "file\x1b[2J\"1");
    event.m_PropertyBag.Set(EPROP_ERROR_CODE, 28);
    event.m_PropertyBag.Set(static_cast<PropEnum>(77), L"\u20ac\u009b\n");
    event.m_iUnionDiscriminant = MANAGEMENT_CONTEXT;
    event.m_ManagementContext.create().m_iReasonID = Reason_WriteError;
    Bytes frame = framed(event);
    std::fill(frame.begin() + 20, frame.begin() + 24, std::byte{0});
    return frame;
}

TEST_F(EvDump, ShowsEventsByNameAndNothingThatSteersATerminal) {
    const Listing run = evdump(file(sampleFrame()));
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.output, R"(event at offset 0
  time: 0
  source: 2
  task: 3 TASK_EVENT
  size: 178
  event: 128 delivery event
  severity: 1 failure
  audience: 64
  subsystem: retryer
  struct_version: 0
  reason: 19 Reason_WriteError
  bag: Default Property Bag
  bag_version: 1
  properties:
    EPROP_IDENTITY (string): file\x1b[2J"1
    EPROP_ERROR_CODE (int): 28
    key 77 (wstring): €\x9b\x0a
)");
}

TEST_F(EvDump, ShowsOneJsonObjectALineAndGoesOnAfterDamage) {
    Bytes stream = sampleFrame();
    stream[60] ^= std::byte{1};
    append(stream, sampleFrame());
    const Listing run = evdump("--json " + file(stream));
    EXPECT_EQ(run.status, 1);
    const std::size_t line = run.output.find('\n') + 1;
    EXPECT_EQ(run.output.substr(0, 46), R"({"kind":"damage","offset":32,"what":"checksum )");
    EXPECT_EQ(
        run.output.substr(line),
        R"({"kind":"event","offset":236,"time":0,"source":2,"task":{"code":3,"name":"TASK_EVENT"},)"
        R"("size":178,"event":{"code":128,"name":"delivery event"},)"
        R"("severity":{"code":1,"name":"failure"},"audience":64,"subsystem":"retryer",)"
        R"("struct_version":0,"reason":{"code":19,"name":"Reason_WriteError"},)"
        R"("bag":"Default Property Bag","bag_version":1,"properties":{)"
        R"("EPROP_IDENTITY":{"type":"string","value":"file\u001b[2J\"1"},)"
        R"("EPROP_ERROR_CODE":{"type":"int","value":28},)"
        R"("key 77":{"type":"wstring","value":"€\u009b\u000a"}}})"
        "\n");
}

TEST_F(EvDump, TellsWhereTheEventInsideASoundMessageIsWrong) {
    CSendHeader header;
    header.SetTask(CSendHeader::TASK_EVENT);
    auto data = std::make_unique<CMemArchive>(archived(GW_EVENT()));
    *data << 1;
    CTransfer transfer;
    transfer.Send(header, "short", 5);
    Bytes stream = handedOut(transfer);
    transfer.Send(header, std::move(data));
    append(stream, handedOut(transfer));
    const Listing run = evdump("< " + file(stream));
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.output.find("damage at offset 44: event: the bytes end inside a value\n"),
              std::string::npos);
    EXPECT_NE(run.output.find("damage at offset 191: event: 4 bytes after its end\n"),
              std::string::npos)
        << run.output;
}

DaemonMsg sampleRecord() {
    DaemonMsg record;
    record.messageId = 11502;
    record.priority = 27; // LOG_DAEMON, LOG_ERR
    record.pid = 77;
    record.dstPort = 25;
    strcpy(record.serviceName, "vorn");
    memset(record.detail, 'd', sizeof record.detail); // unterminated
    strcpy(record.text, "cfgerr%2C");
    record.textLength = 9;
    return record;
}

TEST_F(EvDump, ListsStandardLogRecords) {
    const DaemonMsg good = sampleRecord();
    DaemonMsg bad = good;
    bad.size = 1600;
    Bytes records;
    for (const DaemonMsg* record : {&good, static_cast<const DaemonMsg*>(&bad), &good})
        append(records, std::as_bytes(std::span(record, 1)));
    records.resize(3 * 1616 + 3);
    const Listing run = evdump("--log " + file(records));
    EXPECT_EQ(run.status, 1);
    const std::string listed = R"(  time: 0
  message: 11502 EVENT_CONFIG_BADCONFIG
  priority: 27 err
  service: vorn
  service_type: 3
  protocol: 0
  pid: 77
  src_port: 0
  dst_port: 25
  mapped_dst_port: 0
  param1: -1
  param2: -1
  param3: -1
  line: 0
  detail: dddddddddddddddddddddddddddddddddddddddddddddddddddddddddddddddd
  text_length: 9
  text: cfgerr%2C
)";
    EXPECT_EQ(run.output,
              "log at offset 0\n" + listed +
                  "damage at offset 1616: size is 1600 instead of 1616\n" + "log at offset 3232\n" +
                  listed +
                  "damage at offset 4851: the input ends after 3 of the 1616 bytes of a record\n");
}

void sendTo(const std::string& path, std::span<const std::byte> bytes) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    for (int i = 0; i < 500; ++i) {
        if (sendto(fd, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&address),
                   sizeof address) >= 0)
            break;
        usleep(10000); // not bound yet
    }
    close(fd);
}

TEST_F(EvDump, ListensInTheCollectorsPlace) {
    const std::string path = directory_ / "stdlog";
    std::thread sender([&path] {
        const DaemonMsg record = sampleRecord();
        const auto bytes = std::as_bytes(std::span(&record, 1));
        sendTo(path, Bytes(2000));
        sendTo(path, bytes);
    });
    const Listing run = evdump("--json --count 2 --listen " + path);
    sender.join();
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.output.find(R"({"kind":"damage","offset":0,"what":"a datagram of 2000 bytes )"),
              0U);
    EXPECT_NE(run.output.find(R"({"kind":"log","offset":2000,)"), std::string::npos);
    EXPECT_FALSE(std::filesystem::exists(path));
    std::ofstream(path) << "taken";
    EXPECT_EQ(evdump("--listen " + path).status, 2);
    EXPECT_TRUE(std::filesystem::exists(path));
}

TEST_F(EvDump, RefusesWhatItDoesNotUnderstand) {
    for (const char* arguments :
         {"--nonsense", "--max-size many x", "a b", "--listen s file", "/nonexistent", "--log /"})
        EXPECT_EQ(evdump(arguments).status, 2) << arguments;
}

} // namespace
