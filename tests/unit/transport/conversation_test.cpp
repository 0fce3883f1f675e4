#include "email/Sender.h"

#include "peer.h"

#include "email/Alarm.h"
#include "email/BodyShaper.h"
#include "email/mailscanGlobals.h"
#include "libevrep/Reporter.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/time.h>

#include <chrono>
#include <csignal>
#include <optional>
#include <sstream>

// Failed checks are watched by their exit status; their event goes nowhere.
std::unique_ptr<AbstractReporter> Reporter::makeInstance() {
    struct Silent : AbstractReporter {
        void report(const GW_EVENT&) override {}
    };
    return std::make_unique<Silent>();
}

namespace {

using Email::BodyShaper;
using Email::BoundedLineReader;
using namespace std::chrono_literals;
using namespace std::string_literals;

std::string wireOf(const std::string& body) {
    std::istringstream in(body);
    BoundedLineReader reader(in, BodyShaper::kLineLimit, BodyShaper::kPieceSize);
    BodyShaper shaper;
    std::string out;
    for (auto item = reader.next(); item.kind != BoundedLineReader::Kind::End;
         item = reader.next()) {
        shaper.shape(item, out);
    }
    return out;
}

std::string a(std::size_t n) {
    return std::string(n, 'a');
}

TEST(Body, LinesOfEveryShapeArriveWhole) {
    // clang-format off
    const std::pair<std::string, std::string> cases[] = {
        {"\n", "\r\n"}, {".\n", "..\r\n"}, {"..\nx.\n.y\n", "...\r\nx.\r\n..y\r\n"},
        {"x\r\n\r.\r\n", "x\r\r\n\r.\r\r\n"}, {"x\0y\n"s, "x\0y\r\n"s}, {"x\n.tail", "x\r\n"},
        {a(1023), ""}, {a(1024), a(1022)}, {a(3000), a(2044)},
        {"." + a(3000) + "\n.\n", ".." + a(3000) + "\r\n..\r\n"},
        // Continuations that begin with a dot: the second piece, and the rest behind it.
        {a(1022) + "." + a(1021) + ".b\n", a(1022) + "." + a(1021) + ".b\r\n"}};
    // clang-format on
    for (const auto& [body, wire] : cases) {
        EXPECT_EQ(wireOf(body), wire);
    }
    for (const std::size_t n : {1021U, 1022U, 1023U, 1024U, 1025U, 2044U, 2045U, 2046U, 3000U}) {
        EXPECT_EQ(wireOf(a(n) + "\nb\n"), a(n) + "\r\nb\r\n") << n;
    }
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

TEST_F(Conversation, LinesAreTakenFromPiecesAsTheyArrive) {
    const std::optional<std::string> none;
    // clang-format off
    const std::vector<std::pair<std::string, std::optional<std::string>>> conversations[] = {
        {{"25", none}, {"0 ok\r", "250 ok"}, {"\n", none}, {"220 x\r\n", "220 x"}},
        {{"one\r\ntwo\r\n", "one"}, {"", "two"}, {"", none}}, {{"\r\nfirst\r\n", "first"}},
        {{"a\n\nb\rc\r", "a"}, {"", ""}, {"", "b"}, {"", "c"}}, {{"\n", none}, {"x\n", "x"}},
        {{"a\r\n\r\nb\r\n", "a"}, {"", ""}, {"", "b"}}, {{"n\0l\r\n"s, "n\0l"s}},
        {{a(1026) + "\r\nnext\n", a(1026)}, {"", "next"}}, {{a(1027) + "\r\n", none}, {"", none}}};
    // clang-format on
    for (const auto& steps : conversations) {
        join();
        for (const auto& [bytes, line] : steps) {
            put(peer.get(), bytes);
            EXPECT_EQ(client.line(0), line) << bytes.substr(0, 20);
            EXPECT_EQ(client.err, line ? 0 : ETIME);
        }
    }
}

TEST_F(Conversation, TimeAndSignalsEndARead) {
    EXPECT_GE(timed([&] { EXPECT_FALSE(client.line(150)); }), 150ms);
    EXPECT_LT(timed([&] { EXPECT_FALSE(client.line(-5)); }), 1s);
    const auto before = ::signal(SIGALRM, [](int) {});
    const itimerval soon{{0, 0}, {0, 50'000}};
    ::setitimer(ITIMER_REAL, &soon, nullptr);
    EXPECT_LT(timed([&] { EXPECT_FALSE(client.line(5000)); }), 2s);
    ::signal(SIGALRM, before);
    {
        std::jthread drip([fd = peer.get()](const std::stop_token& stop) {
            for (; !stop.stop_requested(); std::this_thread::sleep_for(100ms)) {
                put(fd, "x");
            }
        });
        EXPECT_LT(timed([&] { EXPECT_FALSE(client.line(1900)); }), 1800ms); // whole seconds count
    }
    put(peer.get(), std::string(3000, 'x')); // no room: neither spins nor ends early
    const std::clock_t used = std::clock();
    EXPECT_GT(timed([&] { EXPECT_FALSE(client.line(2000)); }), 900ms);
    EXPECT_LT(std::clock() - used, CLOCKS_PER_SEC / 10);
    EXPECT_EQ(client.err, ETIME);
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

TEST_F(Conversation, EndOfInputAndMissingSocketsAreTold) {
    put(peer.get(), "line\n0123456789\ncut");
    peer.reset();
    EXPECT_EQ(client.line(0), "line");
    char small[10]; // takes nine characters
    EXPECT_EXIT(client.ReadLine(small, 10, 0, client.err), testing::ExitedWithCode(1), "^$");
    EXPECT_EQ(client.line(0), "0123456789");
    EXPECT_TRUE(!client.line(1000) && client.err == ENODATA);
    client.Close();
    EXPECT_EQ(client.write("x", 1000), EBADF);
    EXPECT_EQ(client.err, ENODATA); // left alone
    EXPECT_TRUE(!client.line(1000) && client.err == EBADF);
    client.Connect("", 25, client.err, 0);
    EXPECT_EQ(client.err, ENOENT);
}

TEST_F(Conversation, RepliesAreReadByTheirLastLine) {
    // clang-format off
    const std::pair<std::string, int> cases[] = {
        {"250 ok\r\n", 250}, {"250xok\n", 250}, {"250\r\n", 1001}, {"25", 1001}, {"", 1001},
        {"250-a\r\n250-b\r\n250 c\r\n", 250}, {"250-a\r\n550 b\r\n", 550}, {"250-a\r\n250\r\n", 1001},
        {"2x0 a\n", 2}, {"-12 a\n", -12}, {"\0\0\0\0\n"s, 0}, {"abc-\n999 z\n", 999},
        {"250-" + a(1022) + "\n251 y\n", 251}, {"250 " + a(1022) + "x\n", 1001}};
    // clang-format on
    for (const auto& [bytes, number] : cases) {
        join();
        put(peer.get(), bytes);
        peer.reset();
        EXPECT_EQ(client.readReply(0, &code), number) << bytes.substr(0, 30);
        EXPECT_EQ(code, number);
    }
}

TEST_F(Conversation, AfterALostReplyNobodyIsRefusedForGood) {
    EXPECT_EQ(client.readReply(0, nullptr), 1001);
    put(peer.get(), "550 late\n600 x\n450 y\n250 z\n599 w\n");
    for (const int number : {1001, 600, 450, 250, 1001}) {
        EXPECT_EQ(client.readReply(1, nullptr), number);
    }
    join();
    put(peer.get(), "250\n550 now\n");
    EXPECT_EQ(client.readReply(1, nullptr), 1001); // short, but not late
    EXPECT_EQ(client.readReply(1, nullptr), 550);
}

TEST_F(Conversation, AServerThatFellSilentIsNotSpokenToAnyMore) {
    mailscanGlobals::RCPT_command_interval = 0;
    EXPECT_FALSE(client.SendRCPT("<1>", &code) || client.SendRCPT("<2>", &code));
    put(peer.get(), "250 ok\n");
    EXPECT_TRUE(client.SendRCPT("<3>", &code)); // breaks the row
    for (const char* rcpt : {"<4>", "<5>", "<6>", "<7>", "<8>"}) {
        EXPECT_TRUE(!client.SendRCPT(rcpt, &code) && code == 1001);
    }
    EXPECT_FALSE(client.SendQUIT(nullptr));
    EXPECT_TRUE(sent().ends_with(" <5>\r\nRCPT TO: <6>\r\n"));
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

// Its end seems to be five bytes further than its bytes reach.
struct Shrinking : std::stringbuf {
    using std::stringbuf::stringbuf;
    pos_type seekoff(off_type off, std::ios::seekdir dir, std::ios::openmode which) override {
        const off_type more = atEnd && dir == std::ios::cur ? 5 : 0;
        atEnd = dir == std::ios::end;
        return std::stringbuf::seekoff(off, dir, which) + more;
    }
    bool atEnd = false;
};

TEST_F(Conversation, DataEndsOnlyWhatWasSentWhole) {
    std::stringbuf whole(".x\n\ncut");
    Shrinking shorter("x\n");
    // clang-format off
    const std::tuple<std::streambuf*, std::string, std::string, int, std::string, bool> cases[] = {
        {&whole, "354 go\n", "250 taken\n", 250, "..x\r\n\r\n\r\n.\r\n", false},
        {&whole, "250 ok\n", "", 250, "", false}, {&whole, "354 go\n", "", 1006, "", true},
        {&shorter, "354 go\n", "", 1005, "", false}, {nullptr, "354 go\n", "", 1005, "", false}};
    // clang-format on
    for (const auto& [source, start, end, number, expected, late] : cases) {
        join();
        std::string wire;
        std::jthread server([&wire, fd = peer.get(), &begin = start, &last = end, alarm = late] {
            getUntil(fd, "DATA\r\n");
            Email::Alarm::setExpiry(alarm);
            put(fd, begin);
            wire = getUntil(fd, "\r\n.\r\n");
            put(fd, last);
        });
        std::istream text(source);
        text.seekg(0, std::ios::end).get(); // as an earlier server's turn leaves it
        EXPECT_EQ(client.SendDATA(text, "name", &code), !end.empty() && number == 250);
        client.CloseTransport();
        server.join();
        EXPECT_EQ(code, number);
        EXPECT_EQ(wire, expected);
        Email::Alarm::setExpiry(false);
    }
    EXPECT_EQ(client.events, "106 106 ");
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

TEST_F(Conversation, ThisHostIsItsNameWhateverFollowsOrLacks) {
    ThisHost::rename("gw.site.test");
    mailscanGlobals::dnsEnable = false;
    std::string codes;
    for (const char* recipient : {"<a@gw>", "<a@>", "<a@gw.site.test.x>", "<a@Gw>", "nobody"}) {
        EmailAddr rcpt(recipient, nullptr, IDS_NO_REASON);
        EXPECT_FALSE(client.OpenTransport(code, &rcpt));
        codes += std::to_string(code) + ' ';
    }
    EXPECT_EQ(codes, "1004 1004 1004 1001 1003 ");
    mailscanGlobals::dnsEnable = true;
}

} // namespace
