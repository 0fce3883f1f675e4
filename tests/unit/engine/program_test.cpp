// The command line and the crash handler.
#include "engine_support.h"
#include "kvorn/segv.h"
#include "retryer/arguments.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <stdexcept>

namespace {

struct CommandLine {
    std::vector<const char*> words;
    const char* service;
    bool now;
    bool valid;
    const char* message;
};
class CommandLines : public testing::TestWithParam<CommandLine> {};
TEST_P(CommandLines, AreReadFromLeftToRight) {
    std::vector<char*> words;
    for (const char* word : GetParam().words) {
        words.push_back(const_cast<char*>(word));
    }
    std::string message;
    const Arguments arguments = readArguments(words, message);
    EXPECT_STREQ(arguments.service, GetParam().service);
    EXPECT_EQ(arguments.now, GetParam().now);
    EXPECT_EQ(arguments.valid, GetParam().valid);
    EXPECT_EQ(message, GetParam().message);
}
INSTANTIATE_TEST_SUITE_P(
    Orders, CommandLines,
    testing::Values(CommandLine{{}, "vorn", false, true, ""},
                    CommandLine{{"-As", "a", "-as", "b", "-NOW"}, "b", true, true, ""},
                    CommandLine{{"-now", "-as"}, "vorn", true, false, "-as requires an argument\n"},
                    CommandLine{{"-daemon", "x", "-now"}, "vorn", true, true, ""},
                    CommandLine{{"-service", "-h", "-as", "-h"}, "-h", false, true, ""},
                    CommandLine{{"-service"}, "vorn", false, true, ""},
                    CommandLine{{"x%s", "-h"}, "vorn", false, false, "unknown argument \"x%s\"\n"},
                    CommandLine{{"-now", "--HELP", "x"}, "vorn", true, false, ""},
                    CommandLine{{""}, "vorn", false, false, "unknown argument \"\"\n"}));

void tellLines() {
    std::fprintf(stderr, "%zu lines, %d ends, first %s\n", loggedLines.size(),
                 linesWith(PrintToSyslog::m_footer), loggedLines.front().c_str());
}

TEST(CrashHandlerDeathTest, EndsWithTheSignalsNumberAndWithoutFooter) {
    loggedLines.clear();
    install_segv_handler();
    for (const auto& [sig, name] : {std::pair{SIGSEGV, "SEGV"}, {SIGABRT, "ABORT"}}) {
        const std::string lines =
            "lines, 0 ends, first <3> ." + std::string(name) + ". ---------- Start of stack trace";
        EXPECT_EXIT(
            {
                std::atexit(tellLines);
                std::raise(sig);
            },
            testing::ExitedWithCode(sig), lines);
    }
    EXPECT_EXIT(segv_handler(99), testing::ExitedWithCode(99), "");
}

TEST(CrashHandler, GoesOnAfterARequest) {
    for (const auto& [sig, name] :
         {std::pair{SIGUSR2, "[USR2] "}, {SIGPIPE, "[PIPE] "}, {kTraceRequest, "[kvorn_exit] "}}) {
        loggedLines.clear();
        segv_handler(sig);
        EXPECT_EQ(loggedLines.front(), std::string("<3> ") + name + PrintToSyslog::m_header);
        EXPECT_EQ(loggedLines.back(), std::string("<3> ") + PrintToSyslog::m_footer);
        EXPECT_GT(loggedLines.size(), 2U);
        EXPECT_LE(loggedLines.size(), 27U);
    }
}

TEST(CrashHandler, ReplacesTheHandlerOnly) {
    struct sigaction before {};
    before.sa_handler = SIG_IGN;
    before.sa_flags = SA_RESTART;
    ::sigaddset(&before.sa_mask, SIGHUP);
    ::sigaction(SIGUSR2, &before, nullptr);
    install_segv_handler();
    struct sigaction after {};
    ::sigaction(SIGUSR2, nullptr, &after);
    EXPECT_EQ(after.sa_handler, segv_handler);
    EXPECT_TRUE((after.sa_flags & SA_RESTART) != 0 && ::sigismember(&after.sa_mask, SIGHUP) == 1);
    ::sigaction(SIGPIPE, nullptr, &after);
    EXPECT_NE(after.sa_handler, segv_handler);
}

TEST(StackTrace, KeepsToItsDepthAndSurvivesItsSink) {
    struct Lines : StackTraceFunctor {
        void operator()(const char* line) override {
            texts.emplace_back(line);
            if (texts.size() == throwAt) {
                throw std::runtime_error("sink");
            }
        }
        std::vector<std::string> texts;
        std::size_t throwAt = 0;
    } sink;
    printStackTrace(2, "null", sink);
    EXPECT_EQ(sink.texts.size(), 2U);
    sink.throwAt = 3;
    printStackTrace(2, "null", sink);
    EXPECT_EQ(sink.texts.back(), "EXCEPTION");
}

} // namespace
