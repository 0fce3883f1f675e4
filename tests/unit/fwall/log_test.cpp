#include "fwall/log.h"

#include "fwall/DaemonMsg.h"
#include "support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>

#include <dlfcn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

static bool noSockets = false;
static int refusals = 0;    // sends that the collector's full queue refuses
static unsigned waited = 0; // seconds

extern "C" int socket(int domain, int type, int protocol) {
    static const auto real = reinterpret_cast<decltype(&socket)>(::dlsym(RTLD_NEXT, "socket"));
    errno = EMFILE;
    return noSockets ? -1 : real(domain, type, protocol);
}

extern "C" ssize_t sendto(int fd, const void* data, size_t size, int flags, const sockaddr* to,
                          socklen_t length) {
    if (refusals > 0) {
        --refusals;
        errno = ENOBUFS;
        return -1;
    }
    static const auto real = reinterpret_cast<decltype(&sendto)>(::dlsym(RTLD_NEXT, "sendto"));
    return real(fd, data, size, flags, to, length);
}

extern "C" unsigned sleep(unsigned seconds) {
    waited += seconds;
    return 0;
}

namespace {

using Lines = std::vector<std::string>;

// A service whose one record is "logging" with these values.
class Service : public CServiceContext {
public:
    explicit Service(std::vector<const char*> values, std::string name = "vorn")
        : values_(std::move(values)), name_(std::move(name)) {
        record_.ln = 12;
        record_.op = keyword_;
        record_.argc = static_cast<std::int32_t>(values_.size());
        values_.push_back(nullptr);
        record_.argv = const_cast<char**>(values_.data());
    }
    std::int32_t ServiceType() const override { return 7; }
    std::int32_t Protocol() const override { return 9; }
    const char* Name() const override { return name_.c_str(); }
    void SetName(const char* name) override { name_ = name; }
    cfgrec* Config() const override { return &record_; }

private:
    std::vector<const char*> values_;
    std::string name_;
    char keyword_[8] = "logging";
    mutable cfgrec record_;
};

class Connection : public CConnectionContext {
public:
    const char* Identifier() const override { return "0123456789abcdef0123456789abcdefXX"; }
    void Policy(char* name, std::size_t size) const override {
        name[(std::string(61, 'p') + ",tail").copy(name, size - 1)] = '\0';
    }
    std::uint16_t SourcePort() const override { return 1025; }
    std::uint16_t DestinationPort() const override { return 25; }
    std::uint16_t MappedDestinationPort() const override { return 2525; }
    const char* SourceAddress() const override { return "192.168.100.2000"; }
    const char* DestinationAddress() const override { return nullptr; }
    const char* User() const override { return "j\xfcrgen,0123456789ABCDEF"; }
};

class Collector {
public:
    Collector() : fd_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0)) {
        const sockaddr_un address{.sun_family = AF_UNIX, .sun_path = "/var/run/stdlog"};
        EXPECT_EQ(::bind(fd_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address),
                  0);
    }
    // The next datagram, or nothing.
    std::string take() {
        std::array<char, 2000> bytes{};
        const ssize_t n = ::recv(fd_.get(), bytes.data(), bytes.size(), 0);
        return {bytes.data(), static_cast<std::size_t>(std::max<ssize_t>(n, 0))};
    }
    std::string takeText() {
        const std::string bytes = take();
        return bytes.empty() ? "nothing" : bytes.c_str() + offsetof(DaemonMsg, text);
    }

private:
    UniqueFd fd_;
};

// Runs `body` in a process with a /var of its own; it must end with `status` and have logged, on
// its way, what `logged` matches.
template<class Body>
void inSandbox(int status, const char* logged, Body body) {
    if (!sandboxAvailable()) {
        GTEST_SKIP() << "NOT TESTED: no private mounts here";
    }
    const auto run = [&body] {
        EXPECT_TRUE(enterSandbox());
        echoLog = true;
        loggedLines.clear();
        body();
        endChild();
    };
    EXPECT_EXIT(run(), testing::ExitedWithCode(status), logged);
}

// "%m" is the system log's own, which the compilers' idea of formats leaves out.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"
void sendSample(CServiceContext* service) {
    const UNIQUE_DATA_T data;
    errno = ESRCH;
    SendLog(service, nullptr, &data, LOG_WARNING, "%s,%% %m", "a\xc8");
}
#pragma GCC diagnostic pop

TEST(LogMessage, WithoutAServiceGoesToTheSystemLogAsItIs) {
    loggedLines.clear();
    sendSample(nullptr);
    RVSendLog(11500, "x%s", "\n");
    impDebugSendLog("y%c", 'z');
    impDebugSendLogNoop("never");
    EXPECT_EQ(loggedLines, (Lines{"<4> a\xc8,% No such process", "<5> x\n", "<5> yz"}));
    EXPECT_EQ(logObj, nullptr);
}

TEST(LogMessage, GoesWhereTheSwitchSays) {
    const std::string line = "<4> a%C8,%25 No such process";
    const char* datagram = "a%C8%2C%25 No such process";
    const struct {
        const char* value;
        Lines toSystemLog;
        const char* toCollector;
    } cases[] = {{"normal", {line}, "nothing"},
                 {"slf", {}, datagram},
                 {"both", {line}, datagram},
                 {"none", {}, "nothing"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.value);
        inSandbox(0, "", [&c] {
            Collector collector;
            Service service({c.value});
            sendSample(&service);
            EXPECT_EQ(loggedLines, c.toSystemLog);
            EXPECT_EQ(collector.takeText(), c.toCollector);
            EXPECT_EQ(collector.takeText(), "nothing");
        });
    }
}

TEST(LoggingSwitch, GivesTheMode) {
    const std::string oneValue = "<3> cfgerr: logging keyword expects only one value, line 12";
    const std::string invalid = "<3> cfgerr: invalid value ";
    const std::string end = " for logging keyword, line 12";
    const struct {
        std::vector<const char*> values;
        int mode;
        Lines complaints;
    } cases[] = {{{"slf", "none"}, 16, {oneValue}},
                 {{"Both"}, 1, {invalid + "Both" + end}},
                 {{}, 1, {oneValue, invalid + end}}};
    for (const auto& c : cases) {
        loggedLines.clear();
        EXPECT_EQ(Log::CheckLogConfig(Service(c.values).Config()), c.mode);
        EXPECT_EQ(loggedLines, c.complaints);
    }
}

TEST(LoggingSwitch, ComesFromTheTableOnlyWhenTheServiceHasNoRecords) {
    const ScratchTable table("vorn: logging both\ndefault_logging: logging slf\n");
    EXPECT_EQ(Log::CheckLogConfig(nullptr), 16);
    Service other({"none"});
    other.Config()->op[0] = 'L';
    EXPECT_EQ(Log::CheckLogConfig(other.Config()), 1);
    cfg_setpfile("/no such table");
    EXPECT_EQ(Log::CheckLogConfig(nullptr), 1);
}

void put(std::string& bytes, std::size_t offset, const std::string& text) {
    bytes.replace(offset, text.size(), text);
}
template<class T>
void putNumber(std::string& bytes, std::size_t offset, T number) {
    put(bytes, offset, std::string(reinterpret_cast<const char*>(&number), sizeof number));
}

std::string goldenRecord() {
    std::string bytes(1616, '\0');
    const std::int32_t head[] = {1616, 1, 11502, 7, 0, LOG_NOTICE, -1, 42, -1};
    for (std::size_t i = 0; i < std::size(head); ++i) {
        putNumber(bytes, 4 * i, head[i]);
    }
    putNumber(bytes, 36, std::uint16_t{1025});
    putNumber(bytes, 38, std::uint16_t{25});
    putNumber(bytes, 40, std::uint16_t{2525});
    putNumber(bytes, 44, std::int32_t{::getpid()});
    put(bytes, 48, "0123456789abcdef0123456789abcdef");
    putNumber(bytes, 80, std::int32_t{77});
    putNumber(bytes, 84, std::int32_t{9});
    put(bytes, 88, "192.168.100.200");
    put(bytes, 120, std::string(40, 's'));
    put(bytes, 161, "j%FCrgen%2C012345678");
    put(bytes, 182, "a,tag of twenty byte");
    put(bytes, 203, std::string(64, 'd'));
    put(bytes, 267, std::string(254, 'e'));
    put(bytes, 523, std::string(61, 'p'));
    putNumber(bytes, 588, std::int32_t{1021});
    put(bytes, 592, "%25" + std::string(1018, 't'));
    return bytes;
}

TEST(StandardLog, RecordHasItsBytesInPlace) {
    inSandbox(0, "", [] {
        Collector collector;
        Service service({"slf"}, std::string(50, 's'));
        Connection connection;
        const std::string text = "%" + std::string(1018, 't') + "\n" + std::string(100, 't');
        UNIQUE_DATA_T data{.messageId = 11502,
                           .tag = "a,tag of twenty bytes",
                           .param2 = 42,
                           .preformatted = text.c_str(),
                           .lineNumber = 77};
        std::memset(data.detail, 'd', sizeof data.detail);
        std::memset(data.extra, 'e', sizeof data.extra); // no terminator of its own
        data.extra[254] = ',';
        SendLog(&service, &connection, &data, LOG_NOTICE, "unused");
        std::string bytes = collector.take();
        std::uint32_t time = 0;
        bytes.copy(reinterpret_cast<char*>(&time), sizeof time, 16);
        EXPECT_LE(static_cast<std::uint32_t>(std::time(nullptr)) - time, 60U);
        putNumber(bytes, 16, std::uint32_t{0});
        EXPECT_EQ(bytes, goldenRecord());
    });
}

TEST(StandardLog, WaitsForAFullCollector) {
    inSandbox(0, "", [] {
        Collector collector;
        Service service({"slf"});
        refusals = 3;
        sendSample(&service);
        EXPECT_EQ(waited, 3U);
        EXPECT_NE(collector.takeText(), "nothing");
    });
}

TEST(StandardLog, LosesTheRecordWithoutACollectorAndEndsWithoutASocket) {
    Service service({"slf"});
    inSandbox(0, "<3> Error sending std log msg: No such file or directory\n",
              [&] { sendSample(&service); });
    inSandbox(EMFILE,
              "<3> Failed to create stdlog socket Too many open files\n"
              "<3> Failed to open stdlog socket Too many open files, EXIT FROM SENDLOG.",
              [&] {
                  noSockets = true;
                  sendSample(&service);
              });
    inSandbox(1, "<3> Failed to create stdlog socket Too many open files, EXIT FROM SENDLOG", [&] {
        noSockets = true;
        G_OpenLog("ident", nullptr, LOG_NDELAY, LOG_MAIL);
    });
}

TEST(LogObject, OutOfMemoryEndsTheProcess) {
    const auto open = [] {
        echoLog = true;
        allocationsLeft = 0;
        G_OpenLog(nullptr, nullptr, 0, LOG_USER);
    };
    EXPECT_EXIT(open(), testing::ExitedWithCode(1), "<3> Failed to create log object");
}

TEST(LogObject, OpensTheSystemLogAsDaemonAndNamesTheService) {
    loggedLines.clear();
    G_OpenLog("one", nullptr, LOG_PID, LOG_USER);
    EXPECT_EQ(logObj->facility(), LOG_DAEMON);
    G_OpenLog("two", nullptr, 0, 0x400);
    EXPECT_EQ(logObj->facility(), 0);
    Service service({"slf"}, "");
    G_OpenLog("three", &service, 0, LOG_USER);
    EXPECT_EQ(logObj->facility(), LOG_USER);
    EXPECT_STREQ(service.Name(), "unknown");
    logObj->SendLogFormatted(&service, nullptr, nullptr, LOG_INFO, "no attributes");
    G_CloseLog();
    EXPECT_EQ(logObj, nullptr);
    EXPECT_EQ(loggedLines, (Lines{"openlog one 1 24", "closelog", "openlog two 0 1024", "closelog",
                                  "<3> Failed to send standard log message: null parameter"}));
}

} // namespace
