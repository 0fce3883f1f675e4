// The rule table and the log that it steers. The system log ends here, the standard log goes
// through real sockets, and allocations and sockets fail on demand.
#include "fwall/DaemonMsg.h"
#include "fwall/config.h"
#include "fwall/log.h"
#include "support/files.h"
#include "support/memory.h"
#include "support/system_log.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>

#include <dlfcn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

using Lines = std::vector<std::string>; // also "openlog ident options facility", "closelog"
static std::string root;                // while set, what lies in /var is looked for below it
static bool noSockets = false;
static int refusals = 0; // sends that the collector's full queue refuses

static sockaddr_un addressOf(const std::string& path) {
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    (root + path).copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
}

extern "C" {
void openlog(const char* ident, int options, int facility) {
    const std::string name(ident);
    recordLine("openlog " + name + " " + std::to_string(options) + " " + std::to_string(facility));
}
std::FILE* fopen(const char* path, const char* mode) { // with 64-bit offsets, as everywhere
    static const auto real = reinterpret_cast<decltype(&fopen)>(::dlsym(RTLD_NEXT, "fopen64"));
    const bool ours = !root.empty() && std::strncmp(path, "/var/", 5) == 0;
    return ours ? real((root + path).c_str(), mode) : real(path, mode);
}
int socket(int domain, int type, int protocol) {
    errno = EMFILE;
    return noSockets ? -1 : static_cast<int>(::syscall(SYS_socket, domain, type, protocol));
}
ssize_t sendto(int fd, const void* data, size_t size, int flags, const sockaddr* to, socklen_t n) {
    const sockaddr_un there = addressOf(reinterpret_cast<const sockaddr_un*>(to)->sun_path);
    errno = ENOBUFS;
    return refusals-- > 0 ? -1 : ::syscall(SYS_sendto, fd, data, size, flags, &there, n);
}
// clang-format off
void closelog() { recordLine("closelog"); }
unsigned sleep(unsigned seconds) { return recordLine("sleep " + std::to_string(seconds)), 0; }
}
// clang-format on

namespace {

using namespace std::string_literals;

using List = std::shared_ptr<cfgrec>;

// "line/flags keyword|argument|argument" of each record.
std::string described(const List& list) {
    std::string text;
    for (const cfgrec* rule = list.get(); rule != nullptr; rule = rule->next) {
        text += std::to_string(rule->ln) + "/" + std::to_string(rule->flags) + " " + rule->op;
        std::for_each(rule->argv, rule->argv + rule->argc,
                      [&text](const char* word) { text.append("|").append(word); });
        text += "\n";
    }
    return text;
}

// An install location of its own, named by TAVORIX, and a collector that listens.
class Config : public testing::Test {
protected:
    Config() {
        root = directory.path("");
        for (const char* below : {"/usr/local/etc", "/var/run", "/var/QELENV"}) {
            std::filesystem::create_directories(root + below);
        }
        const sockaddr_un address = addressOf("/var/run/stdlog");
        ::bind(collector.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
        table("normal: logging normal\nslf: logging slf\nboth: logging both\noff: logging none\n"
              "many: logging slf none\nwrong: logging Both\nempty: logging  \n"
              "other: Logging none\ndefault_logging: logging slf\n");
        loggedLines.clear();
    }
    ~Config() override {
        G_CloseLog();
        root.clear();
    }

    static void table(const std::string& bytes) {
        std::ofstream(root + "/usr/local/etc/rulbex-table") << bytes;
        ::setenv("TAVORIX", root.c_str(), 1);
        cfg_setpfile(nullptr);
    }
    // The next datagram from that byte on, or nothing.
    std::string take(std::size_t from) const {
        std::string bytes(2000, '\0');
        const ssize_t n = ::recv(collector.get(), bytes.data(), bytes.size(), 0);
        return n < 0 ? "" : bytes.substr(from, static_cast<std::size_t>(n) - from);
    }

    const Scratch directory;
    UniqueFd collector{::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0)};
};
using Logging = Config;

TEST_F(Config, KeepsOrderAndLineNumbersWhateverIsRejectedAndFailsOnlyAsAWhole) {
    const std::string wide(8191 - 10, 'x'); // with "vorn: k " and ".\n" exactly the limit
    for (auto* read : {cfg_read, cfg_read_no_SendLog}) {
        table("vorn: one 1\n#" + std::string(9000, 'c') + "\nvorn: k " + wide + ".\nvorn: k ." +
              wide + ".\nno colon\0\nother:\nvorn: last  \n*: deny-two 'a b' c\nvorn: cut off"s);
        List list(read("vorn"), cfg_free);
        EXPECT_EQ(list->next->next->argv, nullav);
        const List copy(cfg_copy(list.get()), cfg_free);
        EXPECT_EQ(copy->next->next->argv, nullptr);
        list.reset();
        EXPECT_EQ(described(copy), "1/0 one|1\n3/0 k|" + wide + ".\n7/0 last\n8/2 two|a b|c\n");
        Lines expected;
        for (const char* fault : {"4 too long", "5 malformed", "9 too long"}) {
            expected.push_back("<5> cfgerr: "s + pfile + " line " + fault);
        }
        for (const char* error : {"/none: No such file or directory", "/usr: Is a directory"}) {
            const std::string path(error, std::strchr(error, ':'));
            cfg_setpfile(path.c_str());
            EXPECT_TRUE(cfg_failed(read("vorn"))) << path;
            expected.push_back("<5> syserr: configuring vorn, cannot open " + root + error);
        }
        EXPECT_EQ(std::exchange(loggedLines, {}), expected);
    }
}

TEST_F(Config, CursorContinuesBehindTheHitAndEndsWithAMiss) {
    table("*: a 1\n*: b 2\n*: a 3\n*: a 4\n");
    List list(cfg_read("vorn"), cfg_free);
    cfgrec* first = cfg_get("a", list.get());
    EXPECT_EQ(first->ln, 1);
    EXPECT_EQ(cfg_get("a", nullptr)->ln, 3);
    EXPECT_EQ(cfg_get("b", nullptr), nullptr);
    EXPECT_EQ(cfg_get("a", nullptr), nullptr);
    EXPECT_EQ(cfg_get("b", list.get())->ln, 2);
    EXPECT_EQ(cfg_next("a", first)->ln, 3);
    EXPECT_EQ(cfg_next("A", first), nullptr);
    EXPECT_EQ(cfg_next("a", nullptr), nullptr);
    EXPECT_NE(savp, nullptr);
    list.reset();
    EXPECT_EQ(savp, nullptr) << "the cursor outlived its list";
}

TEST_F(Config, OutOfMemoryAnywhereIsOneMessageAndNoList) {
    table("vorn: a 1 2\nvorn: b 3\n");
    EXPECT_EQ(cfg_copy(cfg_read("nobody")), nullptr);
    const List list(cfg_read("vorn"), cfg_free);
    for (int left = 8; left >= 0; --left) { // two records, keywords and vectors, three words
        loggedLines.clear();
        allocationsLeft = left;
        EXPECT_TRUE(cfg_failed(left > 0 ? cfg_read("vorn") : cfg_copy(list.get())));
        EXPECT_EQ(loggedLines, Lines{"<5> syserr: out of memory"});
    }
}

TEST_F(Config, LocationIsTheVariableThenTheProfileThenNothing) {
    const std::string wide(255, 'v');
    const std::string wider = wide + "v";
    const std::string key = "install_location=";
    const std::string profile = " " + key + "/no\ninstall_location2=/no\ninstall_location\n" +
                                wide + wide + key + "/no\n" + key + "/yes=1 x\n" + key + "/late\n";
    // clang-format off
    const std::tuple<const char*, std::string, std::string> cases[] = {
        {"/opt/x", profile, "/opt/x/y"}, {"", profile, "/y"}, {nullptr, profile, "/yes=1/y"},
        {nullptr, key + wide, wide.substr(key.size()) + "/y"}, {nullptr, "", "/y"},
        {wider.c_str(), "", wide + "/y"}};
    // clang-format on
    for (const auto& [variable, text, location] : cases) {
        variable != nullptr ? ::setenv("TAVORIX", variable, 1) : ::unsetenv("TAVORIX");
        std::ofstream(root + "/var/QELENV/.profile.vars") << text;
        cfg_setpfile("/y");
        EXPECT_EQ(pfile, location);
    }
}

// A proxy with the rule table's lines for a service; without, it logs to the collector.
struct Proxy : CServiceContext, CConnectionContext {
    explicit Proxy(const char* service = "") : records(cfg_read(service), cfg_free) {}
    std::int32_t ServiceType() const override { return 7; }
    std::int32_t Protocol() const override { return 9; }
    const char* Name() const override { return name.c_str(); }
    void SetName(const char* text) override { name = text; }
    cfgrec* Config() const override { return records.get(); }
    const char* Identifier() const override { return "0123456789abcdef0123456789abcdefXX"; }
    void Policy(char* text, std::size_t size) const override {
        text[(std::string(61, 'p') + ",tail").copy(text, size - 1)] = '\0';
    }
    std::uint16_t SourcePort() const override { return 1025; }
    std::uint16_t DestinationPort() const override { return 25; }
    std::uint16_t MappedDestinationPort() const override { return 2525; }
    const char* SourceAddress() const override { return "192.168.100.2000"; }
    const char* DestinationAddress() const override { return nullptr; }
    const char* User() const override { return "j\xfcrgen,0123456789ABCDEF"; }

    List records;
    std::string name;
};

void sendSample(CServiceContext* service) {
    const UNIQUE_DATA_T data;
    errno = ESRCH;
    // "%m" is the system log's own, which the compilers' idea of formats leaves out.
    __extension__ SendLog(service, nullptr, &data, LOG_WARNING, "%s,%% %m", "a\xc8");
}

TEST_F(Logging, GoesWhereTheSwitchSays) {
    const std::string line = "<4> a%C8,%25 No such process";
    const char* datagram = "a%C8%2C%25 No such process";
    const std::string many = "<3> cfgerr: logging keyword expects only one value, line ";
    const std::string invalid = "<3> cfgerr: invalid value ";
    // clang-format off
    const std::tuple<const char*, Lines, const char*> cases[] = {
        {"normal", {line}, ""}, {"slf", {}, datagram}, {"both", {line}, datagram}, {"off", {}, ""},
        {"many", {many + "5"}, datagram},
        {"wrong", {invalid + "Both for logging keyword, line 6", line}, ""},
        {"empty", {many + "7", invalid + " for logging keyword, line 7", line}, ""},
        {"other", {line}, ""}, {"without records", {}, datagram}};
    // clang-format on
    for (const auto& [service, toSystemLog, toCollector] : cases) {
        Proxy proxy(service);
        G_CloseLog();
        loggedLines.clear();
        sendSample(&proxy);
        EXPECT_EQ(loggedLines, toSystemLog) << service;
        EXPECT_STREQ(take(offsetof(DaemonMsg, text)).c_str(), toCollector) << service;
        EXPECT_EQ(take(0), "");
    }
    cfg_setpfile("/no such table");
    EXPECT_EQ(Log::CheckLogConfig(nullptr), LOG_MODE_SYSTEM);
}

template<class T>
std::string raw(T number) {
    return {reinterpret_cast<const char*>(&number), sizeof number};
}

TEST_F(Logging, DatagramHasItsBytesInPlace) {
    Proxy proxy;
    proxy.name = std::string(50, 's');
    const std::string text = "%" + std::string(1018, 't') + "\n" + std::string(100, 't');
    UNIQUE_DATA_T data{.messageId = 11502,
                       .tag = "a,tag of twenty bytes",
                       .param2 = 42,
                       .preformatted = text.c_str(),
                       .lineNumber = 77};
    std::memset(data.detail, 'd', sizeof data.detail);
    std::memset(data.extra, 'e', sizeof data.extra); // no terminator of its own
    data.extra[254] = ',';
    SendLog(&proxy, &proxy, &data, LOG_NOTICE, "unused");
    std::string bytes = take(0);
    std::uint32_t time = 0;
    bytes.copy(reinterpret_cast<char*>(&time), sizeof time, 16);
    EXPECT_LE(static_cast<std::uint32_t>(std::time(nullptr)) - time, 60U);
    bytes.replace(16, sizeof time, raw(0));
    using Port = std::uint16_t;
    // clang-format off
    const std::pair<std::size_t, std::string> fields[] = {
        {0, raw(1616)}, {4, raw(1)}, {8, raw(11502)}, {12, raw(7)}, {20, raw(LOG_NOTICE)},
        {24, raw(-1)}, {28, raw(42)}, {32, raw(-1)}, {36, raw<Port>(1025)}, {38, raw<Port>(25)},
        {40, raw<Port>(2525)}, {44, raw(::getpid())}, {48, "0123456789abcdef0123456789abcdef"},
        {80, raw(77)}, {84, raw(9)}, {88, "192.168.100.200"}, {120, std::string(40, 's')},
        {161, "j%FCrgen%2C012345678"}, {182, "a,tag of twenty byte"}, {203, std::string(64, 'd')},
        {267, std::string(254, 'e')}, {523, std::string(61, 'p')}, {588, raw(1021)},
        {592, "%25" + std::string(1018, 't')}};
    // clang-format on
    std::string golden(1616, '\0');
    for (const auto& [offset, field] : fields) {
        golden.replace(offset, field.size(), field);
    }
    EXPECT_EQ(bytes, golden);
}

TEST_F(Logging, WaitsForAFullCollectorLosesARecordAndEndsTheProcessWithoutSocketOrMemory) {
    Proxy proxy;
    refusals = 2;
    sendSample(&proxy);
    EXPECT_NE(take(0), "");
    std::filesystem::remove(root + "/var/run/stdlog");
    sendSample(&proxy);
    EXPECT_EQ(loggedLines, (Lines{"sleep 1", "sleep 1",
                                  "<3> Error sending std log msg: No such file or directory\n"}));
    G_CloseLog();
    noSockets = true;
    EXPECT_EXIT(sendSample(&proxy), testing::ExitedWithCode(EMFILE),
                "<3> Failed to create stdlog socket Too many open files\n"
                "<3> Failed to open stdlog socket Too many open files, EXIT FROM SENDLOG.");
    EXPECT_EXIT(G_OpenLog("ident", nullptr, LOG_NDELAY, LOG_MAIL), testing::ExitedWithCode(1),
                "^<3> Failed to create stdlog socket Too many open files, EXIT FROM SENDLOG");
    noSockets = false;
    EXPECT_EXIT((allocationsLeft = 0, G_OpenLog(nullptr, nullptr, 0, LOG_USER)),
                testing::ExitedWithCode(1), "<3> Failed to create log object");
}

TEST_F(Logging, WithoutAServiceGoesToTheSystemLogAsItIsAndAnOpenedLogBelongsToTheDaemon) {
    sendSample(nullptr);
    RVSendLog(11500, "x%s", "\n");
    impDebugSendLog("y%c", 'z');
    impDebugSendLogNoop("never");
    EXPECT_EQ(logObj, nullptr);
    G_OpenLog("one", nullptr, LOG_PID, LOG_USER);
    EXPECT_EQ(logObj->facility(), LOG_DAEMON);
    G_OpenLog("two", nullptr, 0, 0x400);
    EXPECT_EQ(logObj->facility(), 0);
    Proxy proxy;
    G_OpenLog("three", &proxy, 0, LOG_USER);
    EXPECT_EQ(logObj->facility(), LOG_USER);
    EXPECT_EQ(proxy.name, "unknown");
    logObj->SendLogFormatted(&proxy, nullptr, nullptr, LOG_INFO, "no attributes");
    EXPECT_EQ(loggedLines, (Lines{"<4> a\xc8,% No such process", "<5> x\n", "<5> yz",
                                  "openlog one 1 24", "closelog", "openlog two 0 1024", "closelog",
                                  "<3> Failed to send standard log message: null parameter"}));
}

} // namespace
