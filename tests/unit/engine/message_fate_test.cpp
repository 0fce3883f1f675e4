// What becomes of a message and its files. No server can be reached here: a well-formed address
// fails for now (1001), one without "@" for good (1003).
#include "email/engine/MailReSender.h"
#include "email/engine/ReturnMail.h"
#include "support/clock.h"
#include "support/mail.h"

#include <netdb.h>

#include <filesystem>
#include <fstream>
#include <sstream>

namespace fs = std::filesystem;

namespace {

int questions = 0;

} // namespace

// In the place of the C library's: a name server that says nothing for eleven seconds.
extern "C" int res_search(const char*, int, int, unsigned char*, int) noexcept {
    ++questions;
    steadyAhead += 11;
    h_errno = TRY_AGAIN;
    return -1;
}

namespace {

const std::string kLater = "<x@far.test>\t450\n";
const std::string kNever = "<nodomain>\t-1\n";

struct Engine : Spool {
    bool send(const std::string& leaf) {
        return engine.Send(FileName(deferred(leaf).c_str()), true, 0);
    }
    ListSender engine;
};

TEST_F(Engine, KeepsWhoMayStillBeServedAndReturnsTheRest) {
    queue("m1", "<s@a.test>", kLater + kNever + "<y@far.test>\n");
    EXPECT_TRUE(send("m1"));
    EXPECT_EQ(envelope("m1"), "<s@a.test>\n<x@far.test>\t1001\n<y@far.test>\t1001\n");
    const std::string bounce = returnMail();
    EXPECT_EQ(names(), "m1 m1.rmd " + bounce + " " + bounce + ".rmd ");
    EXPECT_EQ(envelope(bounce), "<>\n<s@a.test>\t1001\n");
    EXPECT_EQ(linesWith(" deferred msg=m1 from=<s@a.test> to=<x@far.test> code=1001 "), 1);
    EXPECT_EQ(linesWith(" returned msg=m1 from=<s@a.test> to=<nodomain> code=1003 "), 1);
    EXPECT_EQ(linesWith(" deferred msg=" + bounce + " from=<> to=<s@a.test> code=1001 "), 1);
    EXPECT_EQ(linesWith("<28> bad-domain msg=m1 from=<s@a.test> to=<nodomain>"), 1);
    EXPECT_EQ(loggedLines.size(), 5U);
}

TEST_F(Engine, AnswersNoNullSender) {
    queue("m1", "< >", "<one>\t-1\n<two>\t-1\n" + kLater);
    EXPECT_TRUE(send("m1"));
    EXPECT_EQ(names(), "m1 m1.rmd ");
    EXPECT_EQ(envelope("m1"), "< >\n<x@far.test>\t1001\n");
    EXPECT_EQ(linesWith("<28> dropped msg=m1 from=<%20> to=<one> code=1003 "), 1);
    EXPECT_EQ(linesWith("<28> dropped msg=m1 from=<%20> to=<two> code=1003 "), 1);
    const auto isDrop = [](const GW_EVENT& event) {
        return event.m_EventID == 125 && bagOf(event).find(" 13=1003 ") != std::string::npos;
    };
    EXPECT_EQ(std::count_if(reported.begin(), reported.end(), isDrop), 1);
    EXPECT_TRUE(Email::isNullSender("") && Email::isNullSender("<<> >"));
    EXPECT_FALSE(Email::isNullSender("<a>") || Email::isNullSender("<\t>"));
}

TEST_F(Engine, KeepsTheOldListWhenItCannotBeRewritten) {
    mailscanGlobals::mailLogEnable = false;
    queue("m1", "<>", kLater);
    const std::string before = contents(deferred("m1.rmd"));
    fs::create_directories(deferred("m1.rmd~/x"));
    EXPECT_TRUE(send("m1"));
    EXPECT_EQ(contents(deferred("m1.rmd")), before);
    EXPECT_EQ(linesWith("<27> recipients-rewrite-failed msg=m1 from=<> error="), 1);
    ASSERT_EQ(reported.size(), 1U); // with "mail-log" off, nothing tells of the deferral
    EXPECT_EQ(reported[0].m_EventID, 107);
}

TEST_F(Engine, AnUnreadableTextEndsTheRunOnlyInTheReturnMailsHands) {
    mailscanGlobals::retry_min_interval = 0;
    std::istringstream text("x\n");
    text.setstate(std::ios::badbit);
    engine.recipients().setSender("<s@a.test>");
    engine.recipients().Add("<nodomain>", IDS_NO_REASON);
    EXPECT_EQ(engine.Send(text, true, "m1", true), SEND_FINISHED);
    EXPECT_FALSE(returnMail().empty());
    MailList failed;
    failed.Add("<a@x.test>", SELFSEND);
    std::ostringstream out;
    EXPECT_TRUE(engine.BuildReturnMail(failed, out, text));
    EXPECT_TRUE(failed.IsEmpty());
    EXPECT_NE(out.str().find("<a@x.test>: Attempt to send mail to self\n"), std::string::npos);
    text.setstate(std::ios::badbit);
    EXPECT_EXIT(engine.BuildReturnMail(failed, out, text), testing::ExitedWithCode(1), "");
}

TEST_F(Engine, OnlyDeferredMailTriesEverybodyInOnePass) {
    for (const bool isDeferred : {false, true}) {
        for (const int number : {1, 2, 3}) {
            engine.recipients().Add(("<" + std::to_string(number) + ">").c_str(),
                                    static_cast<SMTPcode>(423 - number));
        }
        MailList failed;
        std::istringstream text;
        EXPECT_FALSE(engine.SendOnce(failed, text, isDeferred));
        std::string found;
        for (const EmailAddr* rcpt = failed.first(); rcpt != nullptr; rcpt = rcpt->next.get()) {
            found += rcpt->text() + std::to_string(rcpt->reason) + " ";
        }
        EXPECT_EQ(found, isDeferred ? "<1>1003 <2>1003 <3>1003 " : "<2>421 <1>422 <3>1003 ");
    }
}

TEST_F(Engine, DeadDomainsHoldAConversationAMinute) {
    mailscanGlobals::dnsEnable = true;
    DomainRelay::initialise(table("domain-relay relayed.test 127.0.0.2"));
    for (int n = 0; n < 1000; ++n) {
        engine.recipients().Add(("<u@dead" + std::to_string(n) + ".test>").c_str(), IDS_NO_REASON);
    }
    EmailAddr first("<u@relayed.test>", nullptr, IDS_NO_REASON);
    SMTPcode code = IDS_NO_REASON;
    EXPECT_FALSE(engine.OpenTransport(code, &first)); // nobody listens there
    EXPECT_EQ(questions, 6);                          // 6 x 11 s
    steadyAhead = 0;
}

TEST_F(Engine, FreshMailGoesOutByPolicyAndIsNeverStoredOverAnother) {
    const std::string body(100000, 'x');
    for (const auto& [sizeLimit, recipientLimit, recipients, tried] :
         {std::tuple{0, 0, 2, true}, {9, 1, 1, true}, {9, 5, 2, false}, {9, 0, 1, false}}) {
        mailscanGlobals::directSendSizeLimit = sizeLimit;
        mailscanGlobals::directSendRecipientLimit = recipientLimit;
        engine.recipients().Destroy();
        for (int i = 0; i < recipients; ++i) {
            engine.recipients().Add("<x@far.test>", IDS_NO_REASON);
        }
        loggedLines.clear();
        std::istringstream text(std::to_string(recipientLimit) + body);
        EXPECT_TRUE(engine.Send(text, "fresh"));
        EXPECT_EQ(linesWith(" code=1001 "), tried ? 1 : 0) << recipientLimit;
    }
    EXPECT_EQ(contents(deferred("fresh")), "0" + body);
    EXPECT_NE(contents(deferred(returnMail())).find(body), std::string::npos);
}

TEST_F(Engine, TellsOfAReturnMailThatIsLost) {
    mailscanGlobals::deferred_mail_path = FileName("/nonexistent/");
    mailscanGlobals::mailLogEnable = false;
    engine.recipients().setSender("<s@a.test>");
    MailList failed;
    failed.Add("<a@x.test>", SELFSEND);
    failed.Add("<b@x.test>", BADHOSTNAME);
    std::istringstream text("x\n");
    engine.Bounce(failed, text);
    EXPECT_EQ(linesWith("<27> deferred-copy-failed msg=rjctfile"), 1);
    EXPECT_EQ(linesWith("<27> return-lost from=<s@a.test> to=<a@x.test> code=1004 "), 1);
    EXPECT_EQ(linesWith("<27> return-lost from=<s@a.test> to=<b@x.test> code=1003 "), 1);
    EXPECT_EQ(loggedLines.size(), 3U);
    EXPECT_TRUE(failed.IsEmpty());
}

TEST_F(Engine, MovesUnsentOutgoingMailIntoTheDeferredQueueOrGivesItUp) {
    for (const bool possible : {true, false}) {
        std::ofstream(outgoing("o1")) << "text\n";
        std::ofstream(outgoing("o1.rcp")) << "<s@a.test>\n<x@far.test>\n";
        EXPECT_EQ(engine.Send(FileName(outgoing("o1").c_str()), false, 0), possible);
        EXPECT_FALSE(fs::exists(outgoing("o1")) || fs::exists(outgoing("o1.rcp")));
        EXPECT_EQ(linesWith("<27> move-failed msg=o1 from=<s@a.test> error="), possible ? 0 : 1);
        mailscanGlobals::deferred_mail_path = FileName("/nonexistent/");
    }
    EXPECT_EQ(names(), "o1 o1.rmd ");
    EXPECT_EQ(envelope("o1"), "<s@a.test>\n<x@far.test>\t1001\n");
    EXPECT_EQ(contents(deferred("o1")), "text\n");
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

TEST(ReturnMail, QuotesBoundedLinesAndPieces) {
    // The length of the first line and what follows it, the limit; lines and bytes quoted.
    // clang-format off
    const std::tuple<std::size_t, const char*, int, int, std::size_t> cases[] = {
        {1023, "\nb\n", 99, 2, 1026}, {1024, "\nb\n", 99, 3, 1028}, {1024, "\nb\n", 1, 1, 1024},
        {2046, "\n", 99, 2, 2048}, {2047, "", 99, 2, 2048}, {1023, "", 99, 0, 0},
        {3, "\nb", 99, 1, 4}, {3, "\nb\n", 0, 0, 0}, {3, "\n", -1, 0, 0}, {0, "", 9, 0, 0}};
    // clang-format on
    for (const auto& [length, rest, limit, lines, bytes] : cases) {
        std::istringstream text(std::string(length, 'x') + rest);
        text.seekg(0, std::ios::end);
        text.setstate(std::ios::eofbit | std::ios::failbit);
        std::string out;
        Email::quoteText(out, text, limit);
        EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), lines) << length << rest << limit;
        EXPECT_EQ(out.size(), bytes) << length << rest << limit;
    }
}

TEST_F(Spool, WalkOffersEveryEntryAndTracesItsSteps) {
    queue("m1", "<>", kLater);
    MailReSender().RetryAll(1);
    for (const char* line :
         {"<26> Unable to open '", "m1.rmd.rmd' error '2'", "<30> Exclusive on file '",
          "<30> Sending '", "<30>    CheckTime 1st time ", ") Time to retry = -39",
          " result = Not Now", "<30>    NextAttempt ", ") IN -", " seconds = Now",
          "<30>    Sending File", "<30>    Sending to '<x@far.test>'",
          "<30>    Could not open transport for '<x@far.test>'", "<30>    Deferring email",
          "<30> Exclusively finished file '"}) {
        EXPECT_EQ(linesWith(line), 1) << line;
    }
    EXPECT_EQ(loggedLines.size(), 13U); // with two attempts and the outcome
    mailscanGlobals::retry_min_interval = 0;
    const std::string longest(199 - deferred("").size(), 'm');
    queue(longest, "<>", kNever);
    queue(longest + "m", "<>", kNever);
    MailReSender().RetryAll(1);
    EXPECT_EQ(names(), "m1 m1.rmd " + longest + "m " + longest + "m.rmd ");
    EXPECT_EQ(linesWith("<30> Unable to resolve pathname for a file"), 3);
    EXPECT_EQ(linesWith("<30>    Immediate retry required"), 2);
}

} // namespace
