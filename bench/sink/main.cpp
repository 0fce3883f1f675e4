// bench_sink <first address> <count> <control socket> <log socket> [<certificate and key>]
//
// One process, one epoll loop: SMTP servers on port 25 of `count` addresses, the name server of
// their zone on 127.0.0.1, and the collector of the system log. A datagram "<microseconds>" to the
// control socket sets the delay before each reply to a command, and with " tls" behind it has the
// servers offer STARTTLS; it sets the counters to zero and is answered with what they were, as
// JSON; "?" only asks.
#include "Dns.h"
#include "Smtp.h"
#include "Tls.h"

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>
#include <utility>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kLate{20}; // until a sick server greets

enum class Health { Well, GreetsLate, CutsAfterData };

// One address that takes connections.
struct Server {
    Health health = Health::Well;
    unsigned long open = 0;
};

struct Connection {
    int fd;
    Smtp smtp;
    std::string out;
    Server* server;
    bool waiting = false; // a delayed reply is on its way
    std::unique_ptr<TlsSession> tls{};
};

[[noreturn]] void fail(const char* what) {
    std::perror(what);
    std::exit(1);
}

int boundSocket(int domain, int type, const void* address, std::size_t size) {
    const int fd = socket(domain, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (fd < 0 ||
        bind(fd, static_cast<const sockaddr*>(address), static_cast<socklen_t>(size)) != 0) {
        fail("bench_sink: bind");
    }
    return fd;
}

int boundInet(int type, std::uint32_t address, std::uint16_t port) {
    sockaddr_in name{};
    name.sin_family = AF_INET;
    name.sin_port = htons(port);
    name.sin_addr.s_addr = htonl(address);
    return boundSocket(AF_INET, type, &name, sizeof name);
}

int boundUnix(const char* path) {
    sockaddr_un name{};
    name.sun_family = AF_UNIX;
    std::snprintf(name.sun_path, sizeof name.sun_path, "%s", path);
    unlink(path);
    return boundSocket(AF_UNIX, SOCK_DGRAM, &name, sizeof name);
}

double processorSeconds() {
    rusage use{};
    getrusage(RUSAGE_SELF, &use);
    const auto seconds = [](const timeval& t) {
        return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) * 1e-6;
    };
    return seconds(use.ru_utime) + seconds(use.ru_stime);
}

class Sink {
public:
    Sink(std::uint32_t first, unsigned count, const char* control, const char* log,
         const char* certificate)
        : tls_(certificate), dns_(first, count), dnsFd_(boundInet(SOCK_DGRAM, INADDR_LOOPBACK, 53)),
          controlFd_(boundUnix(control)), logFd_(boundUnix(log)) {
        for (unsigned i = 0; i < count; ++i) {
            serveAt(first + i, Health::Well);
        }
        for (unsigned i = 0; i < kSickHosts; ++i) {
            serveAt(first + kLateSubnet + i, Health::GreetsLate);
            serveAt(first + kCutSubnet + i, Health::CutsAfterData);
            answerNobody(first + kDeadSubnet + i);
        }
        watch(dnsFd_);
        watch(controlFd_);
        watch(logFd_);
    }

    [[noreturn]] void run() {
        std::vector<epoll_event> events(256);
        for (;;) {
            const int n = wait(events);
            for (int i = 0; i < n; ++i) {
                serve(events[static_cast<std::size_t>(i)].data.fd);
            }
            sendDue();
        }
    }

private:
    struct Delayed {
        Clock::time_point due;
        std::shared_ptr<Connection> connection;
    };

    void serveAt(std::uint32_t address, Health health) {
        const int fd = boundInet(SOCK_STREAM, address, 25);
        if (listen(fd, 4096) != 0) {
            fail("bench_sink: listen");
        }
        servers_.resize(std::max(servers_.size(), static_cast<std::size_t>(fd) + 1));
        servers_[static_cast<std::size_t>(fd)] = std::make_unique<Server>(Server{health});
        watch(fd);
    }

    // A queue that is full, and stays so: the kernel drops whoever else wants to connect.
    static void answerNobody(std::uint32_t address) {
        const int fd = boundInet(SOCK_STREAM, address, 25);
        listen(fd, 0);
        for (int i = 0; i < 2; ++i) {
            sockaddr_in name{};
            name.sin_family = AF_INET;
            name.sin_port = htons(25);
            name.sin_addr.s_addr = htonl(address);
            const int client = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
            connect(client, reinterpret_cast<const sockaddr*>(&name), sizeof name);
        }
    }

    void watch(int fd) {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.fd = fd;
        epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &event);
    }

    int wait(std::vector<epoll_event>& events) {
        timespec left{};
        const auto* next = delayed_.empty() ? nullptr : &delayed_.front();
        if (!greetings_.empty() && (next == nullptr || greetings_.front().due < next->due)) {
            next = &greetings_.front();
        }
        if (next != nullptr) {
            const auto ns = std::chrono::nanoseconds(next->due - Clock::now()).count();
            left.tv_nsec = ns > 0 ? static_cast<long>(ns % 1'000'000'000) : 0;
            left.tv_sec = ns > 0 ? ns / 1'000'000'000 : 0;
        }
        const timespec* limit = next == nullptr ? nullptr : &left;
        return epoll_pwait2(epoll_, events.data(), static_cast<int>(events.size()), limit, nullptr);
    }

    void serve(int fd) {
        const auto at = static_cast<std::size_t>(fd);
        if (at < servers_.size() && servers_[at]) {
            accept(fd, *servers_[at]);
        } else if (fd == dnsFd_) {
            serveDns();
        } else if (fd == controlFd_) {
            serveControl();
        } else if (fd == logFd_) {
            drainLog();
        } else {
            receive(connections_[at]);
        }
    }

    void accept(int listener, Server& server) {
        for (int fd;
             (fd = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC)) >= 0;) {
            const auto at = static_cast<std::size_t>(fd);
            if (at >= connections_.size()) {
                connections_.resize(at + 1);
            }
            connections_[at] = std::make_shared<Connection>(Connection{fd, {}, {}, &server});
            if (offerTls_) { // whose records must not wait for each other's acknowledgement
                const int on = 1;
                setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
                connections_[at]->smtp.offerTls();
            }
            ++counters_.connections;
            counters_.atOnce = std::max(counters_.atOnce, ++open_);
            counters_.atServer = std::max(counters_.atServer, ++server.open);
            if (server.health == Health::GreetsLate) {
                greetings_.push_back({Clock::now() + kLate, connections_[at]});
            } else {
                greet(*connections_[at]);
            }
            watch(fd);
        }
    }

    static void greet(Connection& connection) {
        if (connection.fd >= 0) {
            send(connection.fd, Smtp::kGreeting.data(), Smtp::kGreeting.size(), MSG_NOSIGNAL);
        }
    }

    void receive(const std::shared_ptr<Connection>& from) {
        const std::shared_ptr<Connection> connection = from; // it may be closed on the way
        do {
            receiveSome(connection);
        } while (connection->fd >= 0 && connection->tls && connection->tls->pending());
    }

    void receiveSome(const std::shared_ptr<Connection>& connection) {
        const ssize_t got = connection->tls ? connection->tls->receive(block_.data(), block_.size())
                                            : recv(connection->fd, block_.data(), block_.size(), 0);
        if (got <= 0) {
            if (got == 0 || errno != EAGAIN) {
                close(*connection);
            }
            return;
        }
        const std::string_view bytes(block_.data(), static_cast<std::size_t>(got));
        const unsigned long before = counters_.messages;
        connection->smtp.take(bytes, connection->out, counters_);
        const Health health = connection->server->health;
        counters_.healthy += health == Health::Well ? counters_.messages - before : 0;
        if (health == Health::CutsAfterData && connection->smtp.inBody()) {
            close(*connection);
            return;
        }
        if (connection->out.empty() || connection->waiting) {
            acknowledge(connection->fd);
            return;
        }
        if (delay_.count() == 0) {
            reply(*connection);
        } else {
            connection->waiting = true;
            delayed_.push_back({Clock::now() + delay_, connection});
        }
    }

    // At once, so that nobody who sends a body in small pieces is charged for delayed ones.
    static void acknowledge(int fd) {
        const int on = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_QUICKACK, &on, sizeof on);
    }

    void reply(Connection& connection) {
        connection.waiting = false;
        if (connection.fd < 0) {
            return;
        }
        if (connection.tls) {
            connection.tls->send(connection.out);
        } else {
            send(connection.fd, connection.out.data(), connection.out.size(), MSG_NOSIGNAL);
        }
        connection.out.clear();
        if (connection.smtp.wantsTls()) {
            connection.smtp.beginTls();
            connection.tls = tls_.begin(connection.fd);
        }
        if (connection.smtp.finished()) {
            close(connection);
        }
    }

    void close(Connection& connection) {
        const int fd = std::exchange(connection.fd, -1);
        ::close(fd);
        --open_;
        --connection.server->open;
        connections_[static_cast<std::size_t>(fd)].reset();
    }

    void sendDue() {
        while (!greetings_.empty() && greetings_.front().due <= Clock::now()) {
            greet(*greetings_.front().connection);
            greetings_.pop_front();
        }
        while (!delayed_.empty() && delayed_.front().due <= Clock::now()) {
            const std::shared_ptr<Connection> connection = std::move(delayed_.front().connection);
            delayed_.pop_front();
            reply(*connection);
        }
    }

    void serveDns() {
        sockaddr_storage from{};
        socklen_t size = sizeof from;
        auto* name = reinterpret_cast<sockaddr*>(&from);
        const ssize_t got = recvfrom(dnsFd_, block_.data(), 512, 0, name, &size);
        if (got > 0) {
            const std::string_view question(block_.data(), static_cast<std::size_t>(got));
            const std::string text = dns_.answer(question, counters_);
            if (!text.empty()) {
                sendto(dnsFd_, text.data(), text.size(), 0, name, size);
            }
        }
    }

    void serveControl() {
        sockaddr_un from{};
        socklen_t size = sizeof from;
        auto* name = reinterpret_cast<sockaddr*>(&from);
        char order[32] = {};
        recvfrom(controlFd_, order, sizeof order - 1, 0, name, &size);
        drainLog();
        char text[512];
        const double cpu = processorSeconds();
        const int length = std::snprintf(
            text, sizeof text,
            R"({"connections":%lu,"at_once":%lu,"at_server":%lu,"messages":%lu,"healthy":%lu,"recipients":%lu,"refused":%lu,"bytes":%lu,)"
            R"("mx":%lu,"address":%lu,"log":%lu,"cpu":%.6f})",
            counters_.connections, counters_.atOnce, counters_.atServer, counters_.messages,
            counters_.healthy, counters_.recipients, counters_.refused, counters_.bytes,
            counters_.mxQuestions, counters_.addressQuestions, counters_.logLines,
            cpu - cpuAtReset_);
        if (order[0] != '?') {
            delay_ = std::chrono::microseconds(std::atol(order));
            offerTls_ = tls_.offered() && std::strstr(order, "tls") != nullptr;
            cpuAtReset_ = cpu;
            counters_ = {};
        }
        sendto(controlFd_, text, static_cast<std::size_t>(length), 0, name, size);
    }

    void drainLog() {
        while (recv(logFd_, block_.data(), block_.size(), 0) > 0) {
            ++counters_.logLines;
        }
    }

    TlsServer tls_;
    bool offerTls_ = false;
    Dns dns_;
    int epoll_ = epoll_create1(EPOLL_CLOEXEC);
    int dnsFd_;
    int controlFd_;
    int logFd_;
    std::vector<std::unique_ptr<Server>> servers_; // by the descriptor that listens
    std::vector<std::shared_ptr<Connection>> connections_;
    std::deque<Delayed> greetings_;
    std::deque<Delayed> delayed_; // in order of time: the delay is the same for all
    std::chrono::microseconds delay_{0};
    std::vector<char> block_ = std::vector<char>(256 * 1024);
    Counters counters_;
    unsigned long open_ = 0;
    double cpuAtReset_ = 0;
};

} // namespace

int main(int argc, char** argv) {
    in_addr first{};
    if (argc < 5 || inet_aton(argv[1], &first) == 0) {
        std::fprintf(stderr,
                     "usage: %s <address> <count> <control socket> <log socket> [<certificate>]\n",
                     argv[0]);
        return 2;
    }
    std::signal(SIGPIPE, SIG_IGN); // TLS writes to sockets whose other side is gone
    rlimit most{}; // there are peers that open a connection for each of thousands of messages
    getrlimit(RLIMIT_NOFILE, &most);
    most.rlim_cur = most.rlim_max;
    setrlimit(RLIMIT_NOFILE, &most);
    Sink(ntohl(first.s_addr), static_cast<unsigned>(std::atoi(argv[2])), argv[3], argv[4],
         argc > 5 ? argv[5] : nullptr)
        .run();
}
