// What is told: lines in the system log and event records.
#include "email/telling/DeliveryLog.h"
#include "email/telling/deliveryEvents.h"
#include "support/mail.h"

namespace {

using Email::LogLine;

TEST(LogLines, HoldTheirFieldsInOrderAndLeaveOutTheMissingAndCannotBeForged) {
    const std::string tooLong = "<\xff" + std::string(300, 'x');
    const std::string cut = "%FF" + std::string(250, 'x') + "...>";
    const Email::Attempt refused{.server = IPaddress(),
                                 .stage = Email::Stage::Rcpt,
                                 .reply = "450 4.2.1 \"x\" to=<r@b.test>\r"};
    const Email::Attempt broken{.server = IPaddress(0x0100007FU),
                                .stage = Email::Stage::Dot,
                                .error = Email::noAnswer(62, 30)};
    const Email::Attempt leftOut{.leftOut = "blacklist:127.0.0.2,127.0.0.3"};
    const Email::Attempt served{.server = IPaddress(0x0100007FU),
                                .stage = Email::Stage::Dot,
                                .reply = "250 ok",
                                .tls = "TLSv1.3/X",
                                .verified = "no"};
    // clang-format off
    const std::tuple<LogLine, Email::LogFields, std::string> cases[] = {
        {LogLine::Delivered,
         {.message = "/q/dir/m1", .sender = "<s@a.test>", .recipient = "r@b.test",
          .attempt = &served, .code = 250},
         "delivered msg=m1 from=<s@a.test> to=<r@b.test> relay=127.0.0.1 code=250 text=Accepted stage=dot reply=\"250 ok\" tls=TLSv1.3/X verified=no"},
        {LogLine::Deferred, {.message = "a b=c", .recipient = "<\"x y\"> to=<v@b.test>", .attempt = &refused, .code = 450},
         "deferred msg=a%20b%3Dc to=<%22x%20y%22%3E%20to%3D%3Cv@b.test> relay=0.0.0.0 code=450"
         " text=Requested mail action not taken: mailbox unavailable. [SMTP Error Code 450]"
         " stage=RCPT reply=\"450 4.2.1 %22x%22 to%3D%3Cr@b.test%3E%0D\""},
        {LogLine::Deferred, {.attempt = &broken, .code = 250},
         "deferred relay=127.0.0.1 code=250 text=Unexpected reply stage=dot error=62 (no answer in 30 s)"},
        {LogLine::Returned, {.attempt = &leftOut, .code = 571},
         "returned code=571 text=Unknown SMTP code 571 left-out=blacklist:127.0.0.2,127.0.0.3"},
        {LogLine::SpoolUnreadable, {.error = 2, .args = {"/a \"b=\""}},
         "spool-unreadable dir=\"/a %22b%3D%22\" error=2 (No such file or directory)"},
        {LogLine::Deferred, {.message = "m", .sender = "", .recipient = "<r@b.test>", .code = -1},
         "deferred msg=m from=<> to=<r@b.test> code=-1 text=Not tried yet"},
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
    const std::string page = contents(SOURCE_TREE "/docs/log-lines.md");
    for (const bool mailLog : {true, false}) {
        mailscanGlobals::mailLogEnable = mailLog;
        DebugMode = mailLog ? 0 : 1;
        loggedLines.clear();
        for (const Email::LogRow& row : Email::logTable()) {
            const std::string entry = "`%05d " + std::string(row.text) + "`";
            EXPECT_NE(page.find(entry), std::string::npos) << entry;
            Email::writeLine(row.line, {});
        }
        EXPECT_EQ(linesWith("> delivered") + linesWith("> returned"), mailLog ? 2 : 0);
        EXPECT_EQ(linesWith(" connected"), mailLog ? 0 : 1);
        EXPECT_EQ(loggedLines.size(), Email::logTable().size() - (mailLog ? 11 : 4));
    }
}

TEST(Events, HaveTheirPublishedReasonAndKind) {
    std::string table;
    for (int number = 101; number <= 128; ++number) {
        const SEvent& row = lookupSEvent(static_cast<eventId>(number));
        table += std::to_string(row.event) + ' ' + std::to_string(row.reason) + ' ' +
                 std::to_string(row.kind) + '\n';
    }
    const std::string page = contents(SOURCE_TREE "/tests/unit/telling/golden/events.txt");
    EXPECT_EQ(table, page.substr(page.find('\n') + 1));
    EXPECT_EQ(lookupSEvent(static_cast<eventId>(129)).event, EV_NONE);
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

TEST(Attempt, ANextServerHasNothingOfTheOneBefore) {
    Email::Attempt attempt{.error = "111 (Connection refused)", .reply = "554 no"};
    attempt.tryServer(IPaddress(2));
    EXPECT_EQ(attempt.error + attempt.reply, "");
}

TEST(Events, HoldOnlyWhatIsGiven) {
    const SEvent& row = lookupSEvent(EV_DEFERRED);
    EXPECT_EQ(bagOf(Email::deliveryEvent(row, {.messageSize = 0})), "");
    // clang-format off
    const GW_EVENT event = Email::deliveryEvent(
        row, {.messageSize = 12, .server = IPaddress(0x0100007FU), .serverName = "host",
              .messageName = "/q/m1", .sender = "<s@a.test>", .text = "", .value = -1});
    // clang-format on
    EXPECT_EQ(bagOf(event), "4=host 7=127.0.0.1 12=/q/m1 13=-1 17=12 19=<s@a.test> 20= ");
    EXPECT_EQ(event.m_EventID, 103);
    EXPECT_EQ(event.m_iStructVersion, 0);
    EXPECT_EQ(event.m_PropertyBag.Identifier(), "Default Property Bag");
    EXPECT_EQ(event.getManagementContext()->m_iReasonID, Reason_Null);
}

} // namespace
