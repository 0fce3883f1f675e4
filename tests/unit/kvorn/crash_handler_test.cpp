// The stack trace that a signal leaves in the system log.
#include "kvorn/segv.h"
#include "support/system_log.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>

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
