// The recipient file and the addresses in it.
#include "email/file/FileName.h"
#include "email/site/DomainRelay.h"
#include "email/spool/EmailAddr.h"
#include "email/spool/MailList.h"
#include "email/spool/Recipients.h"

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <unistd.h>

#include <array>
#include <fstream>
#include <string>

namespace {

// A recipient file in a scratch directory of its own.
class Spool {
public:
    explicit Spool(std::int64_t recipients) {
        if (mkdtemp(directory_.data()) == nullptr) {
            std::abort();
        }
        std::ofstream out(path());
        out << "2024/00/01@00:00:00_GMT\n2024/00/01@00:00:00_GMT\n1\n<s@bench.test>\n";
        for (std::int64_t i = 0; i < recipients; ++i) {
            out << "<recipient" << i << "@d" << i % 100 << ".bench.test>\t450\n";
        }
    }
    ~Spool() {
        unlink(path().c_str());
        rmdir(directory_.c_str());
    }
    Spool(const Spool&) = delete;
    Spool& operator=(const Spool&) = delete;

    [[nodiscard]] std::string path() const { return directory_ + "/m.rmd"; }

private:
    std::string directory_ = "/tmp/bench-spool-XXXXXX";
};

void readRecipients(benchmark::State& state) {
    const Spool spool(state.range(0));
    const FileName file(spool.path().c_str());
    Recipients list;
    for (auto run : state) {
        if (!list.Read(file, true)) {
            state.SkipWithError("unreadable");
        }
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(readRecipients)->Arg(1)->Arg(1000)->Arg(10000);

// One durable rewrite, its sync included.
void rewriteRecipients(benchmark::State& state) {
    const Spool spool(state.range(0));
    const FileName file(spool.path().c_str());
    Recipients list;
    for (auto run : state) {
        state.PauseTiming();
        list.Read(file, true);
        state.ResumeTiming();
        if (!list.OverWrite(file)) {
            state.SkipWithError("unwritable");
        }
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(rewriteRecipients)->Arg(1)->Arg(10000);

void normaliseAddress(benchmark::State& state) {
    std::array<char, EmailAddr::kTextSize> out{};
    for (auto run : state) {
        EmailAddr::setAddr(out.data(), "Some Body <some.body@mail.example.org>");
        benchmark::DoNotOptimize(out);
    }
}
BENCHMARK(normaliseAddress);

void checkAddress(benchmark::State& state) {
    for (auto run : state) {
        std::array<char, 64> text{"<some.body@mail.example.org>"};
        benchmark::DoNotOptimize(EmailAddr::addrOkay(text.data(), false));
    }
}
BENCHMARK(checkAddress);

// A domain that only the last of the relay lines matches.
void matchRelay(benchmark::State& state) {
    std::array<char, 16> address{"192.0.2.1"};
    std::array<char*, 1> hosts{address.data()};
    DomainRelay relays;
    relays.AddDomain("*", hosts.data(), 1);
    for (std::int64_t i = 0; i < state.range(0); ++i) {
        const std::string pattern = "*.customer" + std::to_string(i) + ".example";
        relays.AddDomain(pattern.c_str(), hosts.data(), 1);
    }
    for (auto run : state) {
        IPaddressList out;
        eventId event = EV_NONE;
        benchmark::DoNotOptimize(relays.getAddresses("mail.example.org", out, 10, event));
    }
}
BENCHMARK(matchRelay)->Arg(1)->Arg(100);

// Taking the recipients of one server out of a list in which every other one has another.
void gatherRecipients(benchmark::State& state) {
    std::array<char, 16> first{"192.0.2.1"};
    std::array<char, 16> second{"192.0.2.2"};
    std::array<char*, 1> hosts{first.data()};
    DomainRelay::stdRelays.AddDomain("d0.bench.test", hosts.data(), 1);
    hosts = {second.data()};
    DomainRelay::stdRelays.AddDomain("d1.bench.test", hosts.data(), 1);
    for (auto run : state) {
        state.PauseTiming();
        MailList list;
        for (std::int64_t i = 0; i < state.range(0); ++i) {
            list.Add(i % 2 == 0 ? "<r@d0.bench.test>" : "<r@d1.bench.test>",
                     static_cast<SMTPcode>(450));
        }
        state.ResumeTiming();
        MailList::Gathering gathering(list, IPaddress(inet_addr(second.data())));
        std::int64_t taken = 0;
        for (; gathering.next() != nullptr; ++taken) {
        }
        if (taken != state.range(0) / 2) {
            state.SkipWithError("not all recipients were found");
        }
    }
    DomainRelay::stdRelays.Clear();
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(gatherRecipients)->Arg(1000)->Arg(10000);

} // namespace
