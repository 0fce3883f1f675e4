#include "email/ExtSocketClass.h"

#include "peer.h"

#include "email/Alarm.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/time.h>

#include <chrono>
#include <csignal>
#include <optional>
#include <sstream>

namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;

struct Socket : ExtSocketClass {
    using ExtSocketClass::theSocket;

    void connectTo(IPaddress host, int port) {
        const sockaddr_in at = endpoint(host, port);
        Create(err);
        Connect(reinterpret_cast<const sockaddr*>(&at), sizeof at, err);
    }
    // The line, or nothing with the error in `err`.
    std::optional<std::string> line(long limitMs) {
        char buf[kReadBufferSize];
        const auto n = static_cast<std::size_t>(ReadLine(buf, sizeof buf, limitMs, err));
        return err == 0 ? std::optional(std::string(buf, n)) : std::nullopt;
    }
    int err = 77;
};

struct Connected : testing::Test {
    Connected() { std::tie(socket.theSocket, peer) = connectedPair(); }
    Socket socket;
    UniqueFd peer;
};

template<typename Action>
auto timed(Action action) {
    const auto start = std::chrono::steady_clock::now();
    action();
    return std::chrono::steady_clock::now() - start;
}

TEST(Lines, AreTakenFromPiecesAsTheyArrive) {
    const std::optional<std::string> none;
    using Steps = std::vector<std::pair<std::string, std::optional<std::string>>>;
    const Steps conversations[] = {
        {{"25", none}, {"0 ok\r", "250 ok"}, {"\n", none}, {"220 x\r\n", "220 x"}},
        {{"one\r\ntwo\r\n", "one"}, {"", "two"}, {"", none}},
        {{"a\n\nb\rc\r", "a"}, {"", ""}, {"", "b"}, {"", "c"}},
        {{"a\r\n\r\nb\r\n", "a"}, {"", ""}, {"", "b"}},
        {{"\r\nfirst\r\n", "first"}},
        {{"\n", none}, {"x\n", "x"}},
        {{"nul\0inside\r\n"s, "nul\0inside"s}},
        {{std::string(1026, 'x') + "\r\nnext\n", std::string(1026, 'x')}, {"", "next"}},
        {{std::string(1027, 'x') + "\r\n", none}, {"", none}},
    };
    for (const auto& steps : conversations) {
        Socket socket;
        UniqueFd peer;
        std::tie(socket.theSocket, peer) = connectedPair();
        for (const auto& [bytes, line] : steps) {
            put(peer.get(), bytes);
            EXPECT_EQ(socket.line(0), line) << bytes.substr(0, 20);
            EXPECT_EQ(socket.err, line ? 0 : ETIME);
        }
    }
}

TEST_F(Connected, SilenceAndSignalsEndARead) {
    const auto took = timed([&] { EXPECT_FALSE(socket.line(150)); });
    EXPECT_EQ(socket.err, ETIME);
    EXPECT_TRUE(took >= 150ms && took < 2s);
    EXPECT_LT(timed([&] { EXPECT_FALSE(socket.line(-5)); }), 1s);
    const auto before = ::signal(SIGALRM, [](int) {});
    const itimerval soon{{0, 0}, {0, 50'000}};
    ::setitimer(ITIMER_REAL, &soon, nullptr);
    EXPECT_LT(timed([&] { EXPECT_FALSE(socket.line(5000)); }), 2s);
    EXPECT_EQ(socket.err, ETIME);
    ::signal(SIGALRM, before);
}

TEST_F(Connected, DrippingBytesCannotStretchAReadBeyondItsWholeSeconds) {
    std::jthread drip([fd = peer.get()](const std::stop_token& stop) {
        while (!stop.stop_requested()) {
            put(fd, "x");
            std::this_thread::sleep_for(100ms);
        }
    });
    EXPECT_LT(timed([&] { EXPECT_FALSE(socket.line(1900)); }), 1800ms);
    EXPECT_EQ(socket.err, ETIME);
}

TEST_F(Connected, ALineTooLongForTheBufferNeitherSpinsNorEndsEarly) {
    put(peer.get(), std::string(3000, 'x'));
    const std::clock_t before = std::clock();
    EXPECT_GT(timed([&] { EXPECT_FALSE(socket.line(2000)); }), 900ms);
    EXPECT_EQ(socket.err, ETIME);
    EXPECT_LT(std::clock() - before, CLOCKS_PER_SEC / 10);
}

TEST_F(Connected, EndOfInputAndMissingSocketsAreTold) {
    put(peer.get(), "line\ncut");
    peer.reset();
    EXPECT_EQ(socket.line(0), "line");
    EXPECT_FALSE(socket.line(1000));
    EXPECT_EQ(socket.err, ENODATA);
    EXPECT_EQ(socket.Close(), 0);
    EXPECT_EQ(socket.Close(), -1);
    EXPECT_FALSE(socket.line(1000));
    EXPECT_EQ(socket.err, EBADF);
    int err = 77;
    EXPECT_EQ(socket.WriteN("x", 1, 1000, err), EBADF);
    EXPECT_EQ(err, 77);
}

TEST_F(Connected, WritesSendAllOrSayHowItEnded) {
    const std::string large(8 << 20, 'x');
    int err = 77;
    EXPECT_EQ(socket.WriteN("hello", 5, 1000, err), 5);
    EXPECT_EQ(getUntil(peer.get(), "hello"), "hello");
    EXPECT_EQ(socket.WriteN("x", 1, -1, err), 0);
    EXPECT_EQ(err, 0);
    EXPECT_GE(timed([&] { EXPECT_EQ(socket.WriteN(large.data(), 8 << 20, 150, err), 0); }), 150ms);
    EXPECT_EQ(err, 0);
    Email::Alarm::setExpiry(true);
    EXPECT_EQ(socket.WriteN("x", 1, 1000, err), 0);
    EXPECT_EQ(err, ETIME);
    Email::Alarm::setExpiry(false);
    peer.reset();
    EXPECT_EQ(socket.WriteN("x", 1, 1000, err), 0);
    EXPECT_EQ(err, EPIPE);
}

TEST(Connect, LeavesABlockingSocketThatSendsAtOnce) {
    const Server server("127.0.0.2", [](int fd) {
        ::send(fd, "!", 1, MSG_OOB);
        getUntil(fd, "\n");
    });
    Socket socket;
    socket.connectTo(address("127.0.0.2"), server.port);
    ASSERT_EQ(socket.err, 0);
    EXPECT_EQ(::fcntl(socket.theSocket, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(::fcntl(socket.theSocket, F_GETFD), FD_CLOEXEC);
    const std::pair<int, int> options[] = {{SOL_SOCKET, SO_KEEPALIVE}, {IPPROTO_TCP, TCP_NODELAY}};
    for (const auto& [level, option] : options) {
        int on = 0;
        socklen_t size = sizeof on;
        ::getsockopt(socket.theSocket, level, option, &on, &size);
        EXPECT_NE(on, 0);
    }
    // Urgent data wakes a reader that then has nothing to read.
    EXPECT_LT(timed([&] { EXPECT_FALSE(socket.line(1100)); }), 2500ms);
    EXPECT_EQ(socket.err, ETIME);
    put(socket.theSocket, "bye\n");
}

TEST(Connect, TellsWhyItFailed) {
    int port = 0;
    {
        port = Server("127.0.0.2", [](int) {}).port;
    }
    Socket socket;
    socket.connectTo(address("127.0.0.2"), port);
    EXPECT_EQ(socket.err, ECONNREFUSED);
    socket.Close();
    const sockaddr_in at{};
    socket.Connect(reinterpret_cast<const sockaddr*>(&at), sizeof at, socket.err);
    EXPECT_EQ(socket.err, EBADF);
    socket.Connect("", 25, socket.err, 0);
    EXPECT_EQ(socket.err, ENOENT);
}

TEST(Datagrams, AreSentAndReceivedWithoutAddresses) {
    Socket receiver;
    Socket sender;
    receiver.Create(AF_INET, SOCK_DGRAM, 0, receiver.err);
    sender.Create(AF_INET, SOCK_DGRAM, 0, sender.err);
    sockaddr_in at = endpoint(address("127.0.0.2"), 0);
    auto* const generic = reinterpret_cast<sockaddr*>(&at);
    socklen_t size = sizeof at;
    receiver.Bind(generic, size, receiver.err);
    ::getsockname(receiver.theSocket, generic, &size);
    EXPECT_EQ(sender.WriteTo("hello", 5, 1000, 0, generic, size, sender.err), 5);
    char text[16] = "";
    int got = 0;
    int fromLength = 77;
    sockaddr from{};
    EXPECT_EQ(receiver.ReadFrom(text, got, 16, 0, &from, fromLength, receiver.err), 0);
    EXPECT_EQ(std::string_view(text, static_cast<std::size_t>(got)), "hello");
    EXPECT_EQ(from.sa_family, 0);
}

TEST_F(Connected, MisuseByTheGatewayItselfEndsTheRun) {
    put(peer.get(), "0123456789\r\n");
    char small[10];
    EXPECT_EXIT(socket.ReadLine(small, 10, 0, socket.err), testing::ExitedWithCode(1), "^$");
    const rlimit files{2048, 4096};
    ::setrlimit(RLIMIT_NOFILE, &files);
    Socket high;
    high.theSocket = ::fcntl(peer.get(), F_DUPFD_CLOEXEC, 1024);
    ASSERT_EQ(high.theSocket, 1024);
    EXPECT_EXIT(high.WriteN("x", 1, 0, high.err), testing::ExitedWithCode(1), "^$");
}

TEST(Escape, MakesControlCharactersVisible) {
    std::ostringstream out;
    out << escstring("a\a\b\t\n\v\f\r\"'\\\x01\xff");
    EXPECT_EQ(out.str(), "a\\a\\b\\t\\n\\v\\f\\r\\\"\\'\\\\\x01\xff");
}

} // namespace
