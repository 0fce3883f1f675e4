// The rule table: a line, and a file as large as those of busy gateways.
#include "fwall/config.h"

#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace {

void parseRule(benchmark::State& state, const std::string& rule) {
    RuleLine line;
    for (auto run : state) {
        std::string bytes = rule;
        benchmark::DoNotOptimize(line.parse(bytes, "vorn"));
    }
}
BENCHMARK_CAPTURE(parseRule, taken,
                  "ftp, http, vorn: domain-relay *.example.org 192.0.2.1 192.0.2.2\n");
BENCHMARK_CAPTURE(parseRule, for_others,
                  "ftp, http: domain-relay *.example.org 192.0.2.1 192.0.2.2\n");

void readTable(benchmark::State& state) {
    std::string root = "/tmp/bench-rules-XXXXXX";
    if (mkdtemp(root.data()) == nullptr) {
        std::abort();
    }
    std::filesystem::create_directories(root + "/usr/local/etc");
    std::ofstream out(root + "/usr/local/etc/rulbex-table");
    for (std::int64_t i = 0; i < state.range(0); ++i) {
        out << (i % 4 == 0 ? "vorn" : "http") << ": domain-relay *.d" << i
            << ".example 192.0.2.1\n";
    }
    out.close();
    setenv("TAVORIX", root.c_str(), 1);
    cfg_setpfile("/usr/local/etc/rulbex-table");
    for (auto run : state) {
        cfgrec* const list = cfg_read("vorn");
        if (cfg_failed(list) || list == nullptr) {
            state.SkipWithError("unreadable");
            break;
        }
        cfg_free(list);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
    std::filesystem::remove_all(root);
}
BENCHMARK(readTable)->Arg(100)->Arg(10000);

} // namespace
