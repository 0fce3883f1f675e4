#include "email/smtp/Sender.h"

#include "support/clock.h"
#include "support/peer.h"

#include "email/base/Alarm.h"
#include "email/site/DomainRelay.h"
#include "email/site/mailscanGlobals.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <netinet/tcp.h>

#include <chrono>
#include <optional>
#include <sstream>

namespace {

using namespace std::chrono_literals;

std::string a(std::size_t n) {
    return std::string(n, 'a');
}

struct Client : Sender {
    using Sender::commandDeadline;
    using Sender::theSocket;

    void logEvent(eventId event, const char*, int value) override {
        events += std::to_string(event) + (value != 0 ? ':' + std::to_string(value) : "") + ' ';
    }
    // The line, or nothing with the error in `err`.
    std::optional<std::string> line(long limitMs) {
        char buf[kReadBufferSize];
        const auto n = static_cast<std::size_t>(ReadLine(buf, sizeof buf, limitMs, err));
        return err == 0 ? std::optional(std::string(buf, n)) : std::nullopt;
    }
    int write(const std::string& bytes, long limitMs) {
        return WriteN(bytes.data(), static_cast<int>(bytes.size()), limitMs, err);
    }
    std::string events;
    int err = 77;
};

struct Conversation : testing::Test {
    Conversation() { join(), mailscanGlobals::DATA_final_interval = 5; }
    ~Conversation() override { Email::Alarm::setExpiry(false); }
    void join() {
        client.CloseTransport();
        std::tie(client.theSocket, peer) = connectedPair();
    }
    std::string sent() {
        client.CloseTransport();
        return getUntil(peer.get(), "end of input");
    }
    Client client;
    UniqueFd peer;
    SMTPcode code = IDS_NO_REASON;
};

template<typename Action>
auto timed(Action action) {
    const auto start = std::chrono::steady_clock::now();
    action();
    return std::chrono::steady_clock::now() - start;
}

TEST(Socket, BindsConnectsByNameAndHandsOutTheLinesItHolds) {
    int port = 0, err = 0;
    const UniqueFd listener = listenOn("127.0.0.5", port);
    sockaddr_in at{};
    at.sin_family = AF_INET;
    at.sin_addr.s_addr = address("127.0.0.6").value;
    socklen_t size = sizeof at;
    auto* const own = reinterpret_cast<sockaddr*>(&at);
    ExtSocketClass socket;
    socket.Bind(own, size, err);
    EXPECT_EQ(err, EBADF);
    socket.Create(err), socket.Bind(own, size, err);
    socket.Connect("127.0.0.5", static_cast<unsigned short>(port), err, 0);
    EXPECT_EQ(err, 0);
    at = {};
    const UniqueFd peer(::accept(listener.get(), own, &size));
    EXPECT_EQ(at.sin_addr.s_addr, address("127.0.0.6").value);
    std::ostringstream shown;
    at.sin_port = htons(25);
    shown << *own << escstring(" \"a\\\n\x1b\"");
    EXPECT_EQ(shown.str(), "fam:2 127.0.0.6:25 \\\"a\\\\\\n\x1b\\\"");
    put(peer.get(), "one\r\ntwo\nthr");
    char line[ExtSocketClass::kReadBufferSize];
    EXPECT_EQ(socket.ReadLine(line, sizeof line, 1000, err), 3);
    EXPECT_EQ(socket.getLine(line, sizeof line), 3);
    EXPECT_STREQ(line, "two");
    EXPECT_EQ(socket.getLine(line, sizeof line), -1);
}

TEST_F(Conversation, TimeEndsARead) {
    EXPECT_GE(timed([&] { EXPECT_FALSE(client.line(150)); }), 150ms);
    EXPECT_LT(timed([&] { EXPECT_FALSE(client.line(-5)); }), 1s);
    put(peer.get(), std::string(3000, 'x')); // no room: neither spins nor ends early
    const std::clock_t used = std::clock();
    EXPECT_GT(timed([&] { EXPECT_FALSE(client.line(2000)); }), 900ms);
    EXPECT_LT(std::clock() - used, CLOCKS_PER_SEC / 10);
    EXPECT_EQ(client.err, ETIME);
}

TEST_F(Conversation, AWallClockThatIsSetBackHoldsNobody) {
    std::jthread drips([&] {
        for (int n = 0; n < 15; ++n, std::this_thread::sleep_for(100ms)) {
            put(peer.get(), "x");
            wallAhead = n < 2 ? 0 : -3600;
        }
    });
    const auto taken = timed([&] { EXPECT_FALSE(client.line(1000)); });
    EXPECT_TRUE(taken > 990ms && taken < 1400ms) << taken / 1ms;
    wallAhead = 0;
}

TEST_F(Conversation, WritesSendAllOrSayHowItEnded) {
    EXPECT_EQ(client.write("hello", 1000), 5);
    EXPECT_EQ(client.WriteTo(" all", 4, 1000, 0, nullptr, 0, client.err), 4);
    put(peer.get(), getUntil(peer.get(), "all"));
    char text[16] = "";
    int got = 0, fromLength = 77;
    EXPECT_EQ(client.ReadFrom(text, got, 16, 0, nullptr, fromLength, client.err), 0);
    EXPECT_EQ(std::string(text) + std::to_string(got + fromLength), "hello all9");
    EXPECT_EQ(client.write("x", -1), 0);
    EXPECT_GE(timed([&] { EXPECT_EQ(client.write(a(8 << 20), 150), 0); }), 150ms);
    EXPECT_EQ(client.err, 0);
    Email::Alarm::setExpiry(true);
    EXPECT_TRUE(client.write("x", 1000) == 0 && client.err == ETIME);
    Email::Alarm::setExpiry(false);
    peer.reset();
    EXPECT_TRUE(client.write("x", 1000) == 0 && client.err == EPIPE);
}

TEST_F(Conversation, AfterALostReplyNobodyIsRefusedForGood) {
    EXPECT_EQ(client.readReply(0, nullptr), 1001);
    put(peer.get(), "500 late\n600 x\n450 y\n250 z\n599 w\n");
    for (const int number : {1001, 600, 450, 250, 1001}) {
        EXPECT_EQ(client.readReply(1, nullptr), number);
    }
    join();
    put(peer.get(), "250\n550 now\n");
    EXPECT_EQ(client.readReply(1, nullptr), 1001); // short, but not late
    EXPECT_EQ(client.readReply(1, nullptr), 550);
}

TEST_F(Conversation, AfterThreeLostRepliesNothingMoreIsAsked) {
    for (int lost = 0; lost < 4; ++lost) {
        EXPECT_EQ(client.sendCommand("NOOP", nullptr, 1, &code), lost < 3) << lost;
        EXPECT_EQ(client.readReply(0, nullptr), 1001);
    }
}

TEST_F(Conversation, CommandLinesAreBounded) {
    // clang-format off
    const std::tuple<std::size_t, std::optional<std::string>, bool> cases[] = {
        {1022, {}, true}, {1023, {}, false}, {4, a(1017), true}, {4, a(1018), false},
        {4, "a\r\nb", false}, {4, "", true}};
    // clang-format on
    for (const auto& [length, argument, good] : cases) {
        join();
        const char* text = argument ? argument->c_str() : nullptr;
        EXPECT_EQ(client.sendCommand(a(length).c_str(), text, 1, &code), good);
        EXPECT_EQ(sent(), good ? a(length) + (text ? ' ' + *argument : "") + "\r\n" : "");
    }
}

TEST_F(Conversation, NoCommandIsStartedWhenTheTimeIsUp) {
    client.commandDeadline.SetNow();
    client.commandDeadline = client.commandDeadline + 100;
    put(peer.get(), "250 a\n421 b\n");
    EXPECT_TRUE(client.SendRSET(&code) && client.SendQUIT(&code));
    EXPECT_EQ(sent(), "RSET\r\nQUIT\r\n");
    client.commandDeadline = client.commandDeadline + -100;
    for (const char* line : {"QUIT\r\n", ""}) { // the alarm refuses the write of QUIT as well
        join();
        EXPECT_TRUE(!client.SendRSET(&code) && code == 1006);
        EXPECT_EQ(sent(), line);
        client.commandDeadline = DateTime();
        Email::Alarm::setExpiry(true);
    }
}

TEST_F(Conversation, DataIsNotEndedWhenTheTimeIsUp) {
    std::string wire;
    std::jthread server([&wire, fd = peer.get()] {
        getUntil(fd, "DATA\r\n");
        Email::Alarm::setExpiry(true);
        put(fd, "354 go\n");
        wire = getUntil(fd, "end of input");
    });
    std::istringstream text("x\n");
    EXPECT_FALSE(client.SendDATA(text, "name", &code));
    client.CloseTransport();
    server.join();
    EXPECT_EQ(code, 1006);
    EXPECT_EQ(wire, "");
}

TEST_F(Conversation, TheFirstServerThatGreetsIsTaken) {
    int port = 0;
    const UniqueFd greets = listenOn("127.0.0.5", port);
    std::jthread server([&] {
        put(UniqueFd(::accept(greets.get(), nullptr, nullptr)).get(), "220-hi\r\n220 there\r\n");
    });
    IPaddressList list;
    for (const char* host : {"127.0.0.6", "127.0.0.7", "127.0.0.5"}) {
        list.Add(address(host));
    }
    HostList::BlackL.SetTimeout(1000);
    HostList::BlackL.Add(list.addr(1));
    EXPECT_TRUE(client.tryOpen(list, port));
    EXPECT_EQ(client.events, "115:111 118 ");
    EXPECT_TRUE(HostList::BlackL.InList(list.addr(0), true));
    EXPECT_EQ(::fcntl(client.theSocket, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(::fcntl(client.theSocket, F_GETFD), FD_CLOEXEC);
    for (const auto& [level, option] :
         {std::pair{SOL_SOCKET, SO_KEEPALIVE}, {int{IPPROTO_TCP}, TCP_NODELAY}}) {
        int on = 0;
        socklen_t size = sizeof on;
        ::getsockopt(client.theSocket, level, option, &on, &size);
        EXPECT_NE(on, 0);
    }
}

TEST_F(Conversation, RelaysThatMatchAreTriedAlone) {
    DomainRelay relays;
    bool tried = false;
    EXPECT_FALSE(client.tryRelays(relays, "x.test", tried) || tried);
    std::string relay = "127.0.0.10";
    char* hosts[] = {relay.data()};
    relays.AddDomain("*.test", hosts, 1);
    EXPECT_FALSE(client.tryRelays(relays, "x.example", tried) || tried);
    HostList::BlackL.Add(address("127.0.0.10")); // passed over without a connection
    EXPECT_FALSE(client.tryRelays(relays, "x.test", tried));
    EXPECT_TRUE(tried);
    EXPECT_EQ(client.events, "100 100 116 119 ");
}

TEST_F(Conversation, WhoHeldTheWalkerLongAndTookNothingIsLeftAlone) {
    Sender::holdLimit = 0s;
    for (const auto& [host, reply, left] :
         {std::tuple{"127.0.0.8", "250 ok\r\n", false}, {"127.0.0.9", "450 no\r\n", true}}) {
        int port = 0;
        const UniqueFd listener = listenOn(host, port);
        std::jthread server([&listener, end = reply] {
            const UniqueFd fd(::accept(listener.get(), nullptr, nullptr));
            put(fd.get(), "220 hi\r\n354 go\r\n");
            getUntil(fd.get(), "\r\n.\r\n");
            put(fd.get(), end);
        });
        IPaddressList list;
        list.Add(address(host));
        std::istringstream text("x\n");
        EXPECT_TRUE(client.tryOpen(list, port));
        EXPECT_EQ(client.SendDATA(text, "name", &code), !left);
        client.CloseTransport();
        EXPECT_EQ(HostList::BlackL.InList(address(host), false), left);
    }
    Sender::holdLimit = 10min;
}

} // namespace
