// Bodies on their way out and replies on their way in.
#include "email/file/BoundedLineReader.h"
#include "email/site/Resolver.h"
#include "email/smtp/BodyShaper.h"
#include "email/smtp/ExtSocketClass.h"
#include "email/smtp/ReplyLine.h"

#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <sstream>
#include <string>
#include <vector>

namespace {

std::string repeated(const std::string& line, std::size_t bytes) {
    std::string text;
    while (text.size() < bytes) {
        text += line;
    }
    return text;
}

void shapeBody(benchmark::State& state, const std::string& line) {
    const std::string body = repeated(line, 1U << 20U);
    constexpr std::size_t kBlock = 64U * 1024U;
    std::vector<char> block(kBlock + Email::BodyShaper::kLineLimit + Email::BodyShaper::kMaxGrowth);
    for (auto run : state) {
        std::istringstream in(body);
        Email::BoundedLineReader reader(in, Email::BodyShaper::kLineLimit,
                                        Email::BodyShaper::kPieceSize);
        Email::BodyShaper shaper;
        char* end = block.data();
        for (auto item = reader.next(); item.kind != Email::BoundedLineReader::Kind::End;
             item = reader.next()) {
            end = shaper.shape(item, end);
            if (static_cast<std::size_t>(end - block.data()) >= kBlock) {
                benchmark::DoNotOptimize(block.data());
                end = block.data();
            }
        }
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(body.size()));
}
BENCHMARK_CAPTURE(shapeBody, ordinary, std::string(75, 'x') + "\n");
BENCHMARK_CAPTURE(shapeBody, dotted, "." + std::string(58, 'x') + "\n");
BENCHMARK_CAPTURE(shapeBody, short_lines, "a\n");
BENCHMARK_CAPTURE(shapeBody, long_lines, std::string(5000, 'x') + "\n");

// A client whose socket is one end of a pair.
class Client : public ExtSocketClass {
public:
    explicit Client(int fd) { theSocket = fd; }
};

void readReply(benchmark::State& state, const std::string& reply, int lines) {
    std::array<int, 2> ends{};
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()) != 0) {
        state.SkipWithError("socketpair");
        return;
    }
    Client client(ends[0]);
    std::array<char, ExtSocketClass::kReadBufferSize> line{};
    for (auto run : state) {
        const auto sent = write(ends[1], reply.data(), reply.size());
        benchmark::DoNotOptimize(sent);
        for (int i = 0; i < lines; ++i) {
            int err = 0;
            client.ReadLine(line.data(), static_cast<int>(line.size()), 1000, err);
            benchmark::DoNotOptimize(Email::parseReplyLine(line.data()));
        }
    }
    close(ends[1]);
}
BENCHMARK_CAPTURE(readReply, one_line, "250 fine\r\n", 1);
BENCHMARK_CAPTURE(readReply, ten_lines, repeated("250-more\r\n", 90) + "250 fine\r\n", 10);

// "d0.bench.test" with `count` exchangers.
std::string answerWith(int count) {
    const std::string name("\2d0\5bench\4test\0", 15);
    std::string message("\1\1\205\200\0\1\0\0\0\0\0\0", 12);
    message[7] = static_cast<char>(count);
    message += name + std::string("\0\17\0\1", 4);
    for (int i = 0; i < count; ++i) {
        const std::string host = std::string("\3mx") + static_cast<char>('0' + i) + "\300\17";
        message += std::string("\300\14\0\17\0\1\0\0\1\54\0", 11);
        message += static_cast<char>(host.size() + 2);
        message += std::string("\0\12", 2) + host;
    }
    return message;
}

void parseAnswer(benchmark::State& state) {
    const std::string answer = answerWith(static_cast<int>(state.range(0)));
    Resolver resolver;
    for (auto run : state) {
        std::array<char*, Resolver::kMaxExchangers> names{};
        std::array<int, Resolver::kMaxExchangers> prefs{};
        int n = Resolver::kMaxExchangers;
        resolver.ParseQuery(reinterpret_cast<const unsigned char*>(answer.data()),
                            static_cast<int>(answer.size()), names.data(), prefs.data(), n);
        if (n != state.range(0)) {
            state.SkipWithError("not all exchangers were read");
        }
        for (int i = 0; i < n; ++i) {
            delete[] names[static_cast<std::size_t>(i)];
        }
    }
}
BENCHMARK(parseAnswer)->Arg(1)->Arg(9);

} // namespace
