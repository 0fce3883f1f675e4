// What is told: lines in the system log, event records, stack traces.
#include "email/telling/DeliveryLog.h"
#include "email/telling/deliveryEvents.h"
#include "engine_support.h"
#include "kvorn/segv.h"

#include <csignal>
#include <cstdlib>

namespace {

using Email::LogLine;

TEST(LogLines, HoldTheirFieldsInOrderAndLeaveOutTheMissing) {
    const std::string tooLong = "<\xff" + std::string(300, 'x');
    const std::string cut = "%FF" + std::string(249, 'x') + "...";
    // clang-format off
    const std::tuple<LogLine, Email::LogFields, std::string> cases[] = {
        {LogLine::Delivered,
         {.message = "/q/dir/m1", .sender = "<s@a.test>", .recipient = "r@b.test",
          .relay = IPaddress(0x0100007FU), .code = 250},
         "delivered msg=m1 from=<s@a.test> to=<r@b.test> relay=127.0.0.1 code=250 text=Accepted"},
        {LogLine::Deferred, {.message = "m", .sender = "", .recipient = "<r@b.test>", .code = -1},
         "deferred msg=m from=<> to=<r@b.test> code=-1 text=Not tried yet"},
        {LogLine::Returned, {.code = 571}, "returned code=571 text=Unknown SMTP code 571"},
        {LogLine::TraceUnableToOpen, {.args = {"/q/m", "13"}}, "Unable to open '/q/m' error '13'"},
        {LogLine::NoGreeting, {}, "no-greeting"},
        {LogLine::SelfSend, {.message = "\n%", .recipient = tooLong}, "self-send msg=%0A%25 to=<" + cut}};
    // clang-format on
    for (const auto& [line, fields, text] : cases) {
        const std::string whole = formatLine(line, fields);
        EXPECT_EQ(whole.substr(whole.find(' ') + 1), text);
    }
}

TEST_F(Spool, LinesAreOnTheirPageAndOnlyOutcomesAreSilencedAndOnlyProgressNeedsDebugMode) {
    const std::string page = contents(LOG_LINES_PAGE);
    for (const bool mailLog : {true, false}) {
        mailscanGlobals::mailLogEnable = mailLog;
        DebugMode = mailLog ? 0 : 1;
        loggedLines.clear();
        for (const Email::LogRow& row : Email::logTable()) {
            const std::string entry = "`%05d " + std::string(row.text) + "`";
            EXPECT_NE(page.find(entry), std::string::npos) << entry;
            Email::writeLine(row.line, {});
        }
        EXPECT_EQ(linesWith(" delivered") + linesWith(" returned"), mailLog ? 2 : 0);
        EXPECT_EQ(linesWith(" connected"), mailLog ? 0 : 1);
        EXPECT_EQ(loggedLines.size(), Email::logTable().size() - (mailLog ? 11 : 4));
    }
}

// Sums taken from the published table, not from the code's.
TEST(Events, TableHoldsEveryNumberOnce) {
    int reasons = 0;
    int kinds = 0;
    for (int number = -1; number <= 129; ++number) {
        const SEvent& row = lookupSEvent(static_cast<eventId>(number));
        EXPECT_EQ(row.event, number > 100 && number < 129 ? number : 100);
        reasons += row.event > 100 ? row.reason * number : 0;
        kinds += row.event > 100 ? row.kind * number : 0;
    }
    EXPECT_EQ(reasons, 30429);
    EXPECT_EQ(kinds, 6389);
    EXPECT_EQ(lookupSEvent(EV_NONE).kind, 1);
}

TEST_F(Spool, EventKindsFollowTheirModesAndMarks) {
    // Kind, its mode (null: always wanted), category, severity.
    // clang-format off
    const std::tuple<std::int32_t, std::int32_t*, std::int32_t, std::uint32_t> kinds[] = {
        {0, &DetailMode, 8, 2}, {1, &ErrorMode, 64, 1}, {2, &ErrorMode, 32, 2},
        {3, &DebugMode, 1, 2}, {4, nullptr, 64, 2}};
    // clang-format on
    for (const auto& [kind, mode, category, severity] : kinds) {
        for (std::int32_t* each : {&DetailMode, &ErrorMode, &DebugMode}) {
            *each = each == mode ? 2 : 0;
        }
        EXPECT_TRUE(Email::kindWanted(kind));
        DetailMode = ErrorMode = DebugMode = 0;
        EXPECT_EQ(Email::kindWanted(kind), mode == nullptr);
        const GW_EVENT event = Email::deliveryEvent({101, 22, kind}, {});
        EXPECT_EQ(event.m_intendedAudience, category);
        EXPECT_EQ(event.m_EventContext.m_Severity, severity);
    }
}

// The bag as "key=value" in key order.
std::string bagOf(const GW_EVENT& event) {
    std::string text;
    for (std::uint32_t i = 0; i < event.m_PropertyBag.Count(); ++i) {
        const auto* value = event.m_PropertyBag.GetElementNumber(i);
        text += std::to_string(value->m_nIndex) + "=" + static_cast<std::string>(*value) +
                (value->GetType() == ST_INT ? "i " : " ");
    }
    return text;
}

TEST(Events, HoldOnlyWhatIsGiven) {
    const SEvent& row = lookupSEvent(EV_DEFERRED);
    EXPECT_EQ(bagOf(Email::deliveryEvent(row, {.messageSize = 0})), "");
    // clang-format off
    const GW_EVENT event = Email::deliveryEvent(
        row, {.messageSize = 12, .server = IPaddress(0x0100007FU), .serverName = "host",
              .messageName = "/q/m1", .sender = "<s@a.test>", .text = "", .value = -1});
    // clang-format on
    EXPECT_EQ(bagOf(event), "4=host 7=127.0.0.1 12=/q/m1 13=-1i 17=12i 19=<s@a.test> 20= ");
    EXPECT_EQ(event.m_EventID, 103);
    EXPECT_EQ(event.m_iStructVersion, 0);
    EXPECT_EQ(event.m_PropertyBag.Identifier(), "Default Property Bag");
    EXPECT_EQ(event.getManagementContext()->m_iReasonID, Reason_Null);
}

TEST_F(Spool, NoEventDoesNothingAndClosedModesBuildNothing) {
    ListSender engine;
    engine.logEvent(EV_NONE, "x", 1);
    DetailMode = 0;
    engine.logEvent(EV_DELIVERED, "<x@a.test>", 0);
    engine.logEvent(EV_CONNECTED, nullptr, 0);
    EXPECT_TRUE(reported.empty() && loggedLines.empty());
    engine.logEvent(static_cast<eventId>(500), "x", 7);
    ASSERT_EQ(reported.size(), 1U);
    EXPECT_EQ(reported[0].m_EventID, 100);
    DebugMode = 1;
    engine.logEvent(EV_CONNECTED, nullptr, 0);
    EXPECT_EQ(loggedLines.back(), "<31> connected");
}

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
