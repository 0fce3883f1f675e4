// The stack trace that a signal leaves in the system log.
#include "kvorn/segv.h"
#include "support/system_log.h"

#include <gtest/gtest.h>

#include <syslog.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <vector>

namespace {

struct Opening {
    int options;
    unsigned watchdog; // seconds that the alarm had then
};
std::vector<Opening> opened;

} // namespace

// In the place of the C library's.
extern "C" void openlog(const char*, int options, int) {
    const unsigned left = ::alarm(0);
    ::alarm(left);
    opened.push_back({options, left});
}

namespace {

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
        EXPECT_EXIT((std::atexit(tellLines), std::raise(sig)), testing::ExitedWithCode(sig), lines);
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
        EXPECT_TRUE(loggedLines.size() > 2 && loggedLines.size() <= 27);
    }
}

TEST(CrashHandler, ATraceOnRequestHangsNobodyAndLeavesAlarmAndLogAsTheyWere) {
    struct sigaction before {
    }, after{};
    before.sa_handler = [](int) {};
    ::sigaction(SIGALRM, &before, nullptr);
    ::alarm(1000);
    opened.clear();
    segv_handler(SIGUSR2);
    ::sigaction(SIGALRM, nullptr, &after);
    EXPECT_EQ(after.sa_handler, before.sa_handler);
    EXPECT_GT(::alarm(0), 990U);
    ASSERT_EQ(opened.size(), 2U);
    EXPECT_TRUE(opened[0].watchdog > 0 && opened[0].watchdog <= 30);
    EXPECT_EQ(opened[1].options, 0);
}

TEST(CrashHandler, ReplacesTheHandlerOnly) {
    struct sigaction action {};
    action.sa_handler = SIG_IGN;
    action.sa_flags = SA_RESTART;
    ::sigaddset(&action.sa_mask, SIGHUP);
    ::sigaction(SIGUSR2, &action, nullptr);
    install_segv_handler();
    ::sigaction(SIGUSR2, nullptr, &action);
    EXPECT_EQ(action.sa_handler, segv_handler);
    EXPECT_TRUE((action.sa_flags & SA_RESTART) != 0 && ::sigismember(&action.sa_mask, SIGHUP) == 1);
    ::sigaction(SIGPIPE, nullptr, &action);
    EXPECT_NE(action.sa_handler, segv_handler);
}

} // namespace
