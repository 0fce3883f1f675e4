#include "email/Sender.h"

#include "peer.h"

#include "email/Alarm.h"
#include "email/DomainRelay.h"
#include "email/mailscanGlobals.h"
#include "libevrep/Reporter.h"

#include <gtest/gtest.h>

#include <sstream>

// Failed checks are watched by their exit status; their event goes nowhere.
std::unique_ptr<AbstractReporter> Reporter::makeInstance() {
    struct Silent : AbstractReporter {
        void report(const GW_EVENT&) override {}
    };
    return std::make_unique<Silent>();
}

namespace {

using namespace std::string_literals;

struct Client : Sender {
    using Sender::commandDeadline;
    using Sender::messageSize;
    using Sender::serverAddress;
    using Sender::theSocket;

    void logEvent(eventId event, const char*, int value) override {
        if (event != EV_NONE) {
            events += std::to_string(event) + (value != 0 ? ':' + std::to_string(value) : "") + ' ';
        }
    }
    std::string events;
};

struct Conversation : testing::Test {
    Conversation() {
        join(client);
        mailscanGlobals::DATA_final_interval = 5;
        mailscanGlobals::RCPT_command_interval = 60;
        Email::Alarm::setExpiry(false);
    }
    void join(Client& with) { std::tie(with.theSocket, peer) = connectedPair(); }
    std::string sentBy(Client& with) {
        with.CloseTransport();
        return getUntil(peer.get(), "end of input");
    }

    Client client;
    UniqueFd peer;
    SMTPcode code = IDS_NO_REASON;
};

TEST_F(Conversation, RepliesAreReadByTheirLastLine) {
    const std::string long1022(1022, 'x');
    const std::pair<std::string, int> cases[] = {
        {"250 ok\r\n", 250},
        {"250-a\r\n250-b\r\n250 c\r\n", 250},
        {"250-a\r\n550 b\r\n", 550},
        {"250xok\n", 250},
        {"250\r\n", 1001},
        {"250-a\r\n250\r\n", 1001},
        {"2x0 a\n", 2},
        {"-12 a\n", -12},
        {"\0\0\0\0\n"s, 0},
        {"abc-\n999 z\n", 999},
        {"250-" + long1022 + "\n251 y\n", 251},
        {"250 " + long1022 + "x\n", 1001},
        {"25", 1001},
        {"", 1001},
    };
    for (const auto& [bytes, number] : cases) {
        Client fresh;
        join(fresh);
        put(peer.get(), bytes);
        peer.reset();
        EXPECT_EQ(fresh.readReply(0, &code), number) << bytes.substr(0, 30);
        EXPECT_EQ(code, number);
    }
}

TEST_F(Conversation, EndlessRepliesAreGivenUp) {
    std::string lines;
    for (int i = 0; i < Sender::kMaxContinuations; ++i) {
        lines += "250-x\n";
    }
    std::jthread writer([&] { put(peer.get(), lines + "250 end\n" + lines + "250-x\n250 end\n"); });
    EXPECT_EQ(client.readReply(5, nullptr), 250);
    EXPECT_EQ(client.readReply(5, nullptr), 1001);
}

TEST_F(Conversation, AfterALostReplyNobodyIsRefusedForGood) {
    EXPECT_EQ(client.readReply(0, nullptr), 1001);
    put(peer.get(), "550 late\n600 x\n450 y\n250 z\n599 w\n");
    for (const int number : {1001, 600, 450, 250, 1001}) {
        EXPECT_EQ(client.readReply(1, &code), number);
        EXPECT_EQ(code, number);
    }
    client.CloseTransport();
    join(client);
    put(peer.get(), "250\n550 now\n");
    EXPECT_EQ(client.readReply(1, nullptr), 1001); // short, but not late
    EXPECT_EQ(client.readReply(1, nullptr), 550);
}

TEST_F(Conversation, AServerThatFellSilentIsNotSpokenToAnyMore) {
    mailscanGlobals::RCPT_command_interval = 0;
    EXPECT_FALSE(client.SendRCPT("<1>", &code));
    EXPECT_FALSE(client.SendRCPT("<2>", &code));
    put(peer.get(), "250 ok\n");
    EXPECT_TRUE(client.SendRCPT("<3>", &code)); // breaks the row
    for (const char* rcpt : {"<4>", "<5>", "<6>", "<7>", "<8>"}) {
        EXPECT_FALSE(client.SendRCPT(rcpt, &code));
        EXPECT_EQ(code, 1001);
    }
    EXPECT_FALSE(client.SendQUIT(nullptr));
    const std::string sent = sentBy(client);
    EXPECT_NE(sent.find("<6>"), std::string::npos);
    EXPECT_EQ(sent.find("<7>"), std::string::npos);
}

TEST_F(Conversation, CommandsHaveOneShape) {
    put(peer.get(), "250 a\n250 b\n250 c\n250 d\n250 e\n421 f\n");
    EXPECT_TRUE(client.SendHELO(&code));
    EXPECT_TRUE(client.SendMAIL("<a@b>", nullptr));
    EXPECT_TRUE(client.SendMAIL("", nullptr));
    EXPECT_TRUE(client.SendRCPT("<c@d>", nullptr));
    EXPECT_TRUE(client.SendRSET(&code));
    EXPECT_TRUE(client.SendQUIT(&code));
    EXPECT_EQ(code, 421);
    EXPECT_EQ(sentBy(client), "HELO "s + HostList::hostName() +
                                  "\r\nmail from: <a@b>\r\nmail from: \r\nRCPT TO: <c@d>\r\n"
                                  "RSET\r\nQUIT\r\n");
}

TEST_F(Conversation, CommandLinesAreBounded) {
    const struct {
        std::size_t command;
        std::optional<std::string> argument;
        bool sent;
    } cases[] = {{1022, {}, true},
                 {1023, {}, false},
                 {4, std::string(1017, 'x'), true},
                 {4, std::string(1018, 'x'), false},
                 {4, "a\r\nb", false},
                 {4, "", true}};
    for (const auto& c : cases) {
        Client fresh;
        join(fresh);
        const std::string command(c.command, 'C');
        const char* argument = c.argument ? c.argument->c_str() : nullptr;
        EXPECT_EQ(fresh.sendCommand(command.c_str(), argument, 1, &code), c.sent);
        EXPECT_EQ(code, 1001);
        const std::string line = command + (c.argument ? ' ' + *c.argument : "") + "\r\n";
        EXPECT_EQ(sentBy(fresh), c.sent ? line : "");
    }
}

TEST_F(Conversation, NoCommandIsStartedWhenTheTimeIsUp) {
    DateTime now;
    now.SetNow();
    client.commandDeadline = now + 100;
    EXPECT_FALSE(client.CommandTimeOut());
    client.commandDeadline = now;
    EXPECT_FALSE(client.SendRSET(&code));
    EXPECT_EQ(code, 1006);
    EXPECT_EQ(sentBy(client), "QUIT\r\n");
    Client alarmed;
    join(alarmed);
    Email::Alarm::setExpiry(true); // refuses the write of QUIT as well
    EXPECT_FALSE(alarmed.SendRSET(&code));
    EXPECT_EQ(code, 1006);
    EXPECT_EQ(sentBy(alarmed), "");
}

// What a receiver makes of the wire form: dots and line ends undone.
std::string received(const std::string& wire) {
    std::string body;
    for (std::size_t at = 0; at < wire.size();) {
        at += wire[at] == '.' ? 1U : 0U;
        const std::size_t end = wire.find("\r\n", at);
        body += wire.substr(at, end - at) + '\n';
        at = end + 2;
    }
    return body;
}

struct Data : Conversation {
    // Serves one DATA with the two replies; `between` comes before the first.
    bool send(
        std::istream& text, const char* start, const char* end, void (*between)() = [] {}) {
        std::jthread server([=, this, fd = peer.get()] {
            EXPECT_EQ(getUntil(fd, "\n"), "DATA\r\n");
            between();
            put(fd, start);
            wire = getUntil(fd, "\r\n.\r\n");
            put(fd, end);
        });
        const bool sent = client.SendDATA(text, "name", &code);
        client.CloseTransport();
        return sent;
    }
    std::string wire;
};

TEST_F(Data, BodiesArriveAsTheyWereQueued) {
    std::string body = ".\n..\n.x\nx\n\n" + std::string(3000, '.') + "\nCR . CR \r.\r\n";
    while (body.size() < 5 * Sender::kBlockSize) {
        body += body.substr(0, 60'001) + '\n';
    }
    std::istringstream text(body + "no line feed");
    text.seekg(0, std::ios::end);
    text.get(); // as an earlier server's turn leaves it
    EXPECT_TRUE(send(text, "354 go\n", "250 taken\n"));
    EXPECT_EQ(code, 250);
    ASSERT_TRUE(wire.ends_with("\r\n\r\n.\r\n"));
    EXPECT_EQ(received(wire.substr(0, wire.size() - 5)), body);
    EXPECT_EQ(client.messageSize, static_cast<int>(body.size() + 12));
}

TEST_F(Data, RepliesDecide) {
    const std::tuple<const char*, const char*, int, const char*> cases[] = {
        {"354 go\n", "554 no\n", 554, "\r\n.\r\n"},
        {"354-a\n354 go\n", "450 x\n", 450, "\r\n.\r\n"},
        {"250 ok\n", "", 250, ""},
        {"554 no\n", "", 554, ""}};
    for (const auto& [start, end, number, sent] : cases) {
        std::istringstream text;
        join(client);
        EXPECT_FALSE(send(text, start, end));
        EXPECT_EQ(code, number);
        EXPECT_EQ(wire, sent);
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

TEST_F(Data, ABodyThatCannotBeSentWholeIsNeverEnded) {
    Shrinking shorter("x\n");
    for (std::streambuf* source : {static_cast<std::streambuf*>(&shorter), {}}) {
        std::istream text(source);
        join(client);
        EXPECT_FALSE(send(text, "354 go\n", ""));
        EXPECT_EQ(code, 1005);
        EXPECT_EQ(wire, "");
    }
    EXPECT_EQ(client.events, "106 106 ");

    std::istringstream late("x\n");
    join(client);
    EXPECT_FALSE(send(late, "354 go\n", "", [] { Email::Alarm::setExpiry(true); }));
    EXPECT_EQ(code, 1006);
    EXPECT_EQ(wire, "");
    Email::Alarm::setExpiry(false);

    mailscanGlobals::DATA_send_interval = 0;
    for (const bool gone : {true, false}) { // or there, but not reading any more
        std::istringstream large(std::string(4 << 20, 'x') + '\n');
        join(client);
        std::jthread server([this, gone] {
            getUntil(peer.get(), "\n");
            put(peer.get(), "354 go\n");
            peer.reset(gone ? -1 : peer.release());
        });
        EXPECT_FALSE(client.SendDATA(large, nullptr, &code));
        EXPECT_EQ(code, 1001);
        EXPECT_EQ(client.theSocket, -1);
    }
    mailscanGlobals::DATA_send_interval = 30;
}

IPaddressList listOf(std::initializer_list<const char*> dotted) {
    IPaddressList list;
    for (const char* host : dotted) {
        list.Add(address(host));
    }
    return list;
}

TEST(OpenServer, TheFirstThatGreetsIsTaken) {
    const Server greets("127.0.0.5", [](int fd) {
        put(fd, "220-hi\r\n220 there\r\n");
        getUntil(fd, "\n");
    });
    HostList::BlackL.SetTimeout(1000);
    HostList::BlackL.Add(address("127.0.0.7"));
    Client client;
    EXPECT_TRUE(client.tryOpen(listOf({"127.0.0.6", "127.0.0.7", "127.0.0.5"}), greets.port));
    EXPECT_EQ(client.events, "115:111 118 ");
    EXPECT_EQ(client.serverAddress, address("127.0.0.5"));
    client.CloseTransport();
}

TEST(OpenServer, OneThatDoesNotGreetIsPassedOverFromThenOn) {
    const Server refuses("127.0.0.8", [](int fd) { put(fd, "554 no\r\n"); });
    Client client;
    EXPECT_FALSE(client.tryOpen(listOf({"127.0.0.8"}), refuses.port));
    EXPECT_FALSE(client.tryOpen(listOf({"127.0.0.8"}), refuses.port));
    EXPECT_EQ(client.events, "117 ");
    EXPECT_EQ(client.theSocket, -1);
}

TEST(OpenServer, MoreAddressesThanConfiguredEndTheRun) {
    Client client;
    mailscanGlobals::max_addr_to_try = 0;
    EXPECT_EXIT(client.tryOpen(listOf({"127.0.0.8"}), 25), testing::ExitedWithCode(1), "^$");
    mailscanGlobals::max_addr_to_try = 10;
}

// Servers that are on the blacklist are never connected to, so that the choice alone is seen.
TEST(OpenTransport, ChoosesAndSaysWhy) {
    ThisHost::rename("gw.site.test");
    HostList::BlackL.SetTimeout(1000);
    const IPaddressList held = listOf({"10.9.0.1", "10.9.0.2", "10.9.0.9"});
    for (const int i : {0, 1, 2}) {
        HostList::BlackL.Add(held.addr(i));
    }
    HostList::BlackL.Add(IPaddress::loopback);
    char relay[] = "[10.9.0.1]";
    char fallback[] = "[10.9.0.2]";
    char* hosts[] = {relay, fallback};
    DomainRelay::stdRelays.AddDomain("relayed.test", hosts, 1);
    DomainRelay::stdRelays.AddDomain("gw.site.test", hosts, 1); // not for direct sends
    mailscanGlobals::dnsEnable = false;
    const char* internal[] = {"inside.test", nullptr};
    mailscanGlobals::direct_send_internal_domain = internal;

    const struct {
        const char* recipient;
        int sendPort;
        bool fallback;
        int code;
        const char* events;
    } cases[] = {
        {"<nobody>", 25, false, 1003, "120 124 "},
        {"<a@gw.site.test>", 25, false, 1004, "120 101 "},
        {"<a@gw>", 25, false, 1004, "120 101 "},
        {"<a@gw.site.test.x>", 25, false, 1004, "120 101 "},
        {"<a@>", 25, false, 1004, "120 101 "},
        {"<a@Gw>", 25, false, 1001, "120 "},
        {"<a@[10.9.0.9]>", 25, true, 1001, "120 "},
        {"<a@relayed.test>", 25, true, 1001, "120 116 119 "}, // one relay failed: the end
        {"<a@other.test>", 25, true, 1001, "120 116 119 "},   // the fallback relay
        {"<a@relayed.test>", 2525, true, 1001, "120 121 116 119 "},
        {"<a@relayed.test>", 2525, false, 1001, "120 121 "},
        {"<a@inside.test>", 2525, false, 1001, "120 "},
    };
    for (const auto& c : cases) {
        mailscanGlobals::mailSendPort = c.sendPort;
        DomainRelay::fallbackRelays.Clear();
        DomainRelay::fallbackRelays.AddDomain("*", hosts + 1, c.fallback ? 1 : 0);
        EmailAddr rcpt(c.recipient, nullptr, IDS_NO_REASON);
        Client client;
        SMTPcode code = IDS_NO_REASON;
        EXPECT_FALSE(client.OpenTransport(code, &rcpt)) << c.recipient;
        EXPECT_EQ(code, c.code) << c.recipient;
        EXPECT_EQ(client.events, c.events) << c.recipient;
    }
    DomainRelay::initialise(nullptr);
    mailscanGlobals::dnsEnable = true;
    mailscanGlobals::mailSendPort = 25;
    mailscanGlobals::direct_send_internal_domain = nullptr;
}

} // namespace
