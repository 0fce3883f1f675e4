// What becomes of a message and its files. No server can be reached here: a well-formed address
// fails for now (1001), one without "@" for good (1003).
#include "email/MailReSender.h"
#include "email/MessageLock.h"
#include "engine_support.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <filesystem>
#include <sstream>
#include <sys/file.h>
#include <sys/stat.h>

namespace fs = std::filesystem;

namespace {

constexpr int kDue = 5000; // seconds
const std::string kLater = "<x@far.test>";
const std::string kNever = "<nodomain>";

class Engine : public testing::Test {
protected:
    bool send(const std::string& leaf, bool deferred = true) {
        const std::string path = deferred ? spool.deferred(leaf) : spool.outgoing(leaf);
        return engine.Send(FileName(path.c_str()), deferred, 0);
    }

    ScratchSpool spool;
    ListSender engine;
};

TEST_F(Engine, LeavesAMessageAloneThatIsTooSoon) {
    spool.queue("m1", 100, 100, "<s@a.test>", {kLater + "\t450"});
    const std::string before = contents(spool.deferred("m1.rmd"));
    const auto written = fs::last_write_time(spool.deferred("m1.rmd"));
    EXPECT_TRUE(send("m1"));
    EXPECT_EQ(contents(spool.deferred("m1.rmd")), before);
    EXPECT_EQ(fs::last_write_time(spool.deferred("m1.rmd")), written);
    EXPECT_TRUE(loggedLines.empty() && reported.empty());
}

TEST_F(Engine, KeepsWhoMayStillBeServedAndReturnsTheRest) {
    spool.queue("m1", kDue, kDue, "<s@a.test>",
                {kLater + "\t450", kNever + "\t-1", "<y@far.test>"});
    EXPECT_TRUE(send("m1"));
    EXPECT_EQ(spool.envelope("m1"), "<s@a.test>\n<x@far.test>\t1001\n<y@far.test>\t1001\n");
    const std::string bounce = spool.returnMail();
    EXPECT_EQ(spool.names(), "m1 m1.rmd " + bounce + " " + bounce + ".rmd");
    EXPECT_EQ(spool.envelope(bounce), "<>\n<s@a.test>\t1001\n");
    EXPECT_NE(contents(spool.deferred(bounce)).find("<nodomain>: Malformed"), std::string::npos);
    EXPECT_EQ(linesWith(" deferred msg=m1 from=<s@a.test> to=<x@far.test> code=1001 "), 1);
    EXPECT_EQ(linesWith(" returned msg=m1 from=<s@a.test> to=<nodomain> code=1003 "), 1);
    EXPECT_EQ(linesWith(" deferred msg=" + bounce + " from=<> to=<s@a.test> code=1001 "), 1);
    EXPECT_EQ(linesWith("<28> bad-domain msg=m1 from=<s@a.test> to=<nodomain>"), 1);
    EXPECT_EQ(loggedLines.size(), 5U);
}

TEST_F(Engine, DeletesAMessageOnceEverybodyIsAnswered) {
    spool.queue("m1", kDue, kDue, "<s@a.test>", {kNever + "\t-1"});
    writeFile(spool.deferred("m1.rmd~"), "left over");
    EXPECT_TRUE(send("m1"));
    const std::string bounce = spool.returnMail();
    EXPECT_EQ(spool.names(), bounce + " " + bounce + ".rmd");
}

TEST_F(Engine, ReturnsAnOverdueMessageWithoutTryingIt) {
    spool.queue("m1", 400100, 10, "<s@a.test>", {kLater + "\t450"});
    EXPECT_TRUE(send("m1"));
    EXPECT_EQ(linesWith("<29> overdue msg=m1 from=<s@a.test> waited=400100 tries=1"), 1);
    EXPECT_NE(contents(spool.deferred(spool.returnMail())).find("<x@far.test>: Requested mail"),
              std::string::npos);
    EXPECT_EQ(spool.names().find("m1"), std::string::npos);
}

TEST_F(Engine, AnswersNoNullSender) {
    spool.queue("m1", kDue, kDue, "< >", {"<one>\t-1", "<two>\t-1", kLater + "\t-1"});
    EXPECT_TRUE(send("m1"));
    EXPECT_EQ(spool.names(), "m1 m1.rmd");
    EXPECT_EQ(spool.envelope("m1"), "< >\n<x@far.test>\t1001\n");
    EXPECT_EQ(linesWith("<28> dropped msg=m1 from=< > to=<one> code=1003 "), 1);
    EXPECT_EQ(linesWith("<28> dropped msg=m1 from=< > to=<two> code=1003 "), 1);
    EXPECT_EQ(std::count_if(reported.begin(), reported.end(),
                            [](const GW_EVENT& event) { return event.m_EventID == 125; }),
              1);
}

struct Unusable {
    const char* text; // null: missing
    const char* rcpts;
    const char* line;
};
TEST_F(Engine, DeletesWhatCannotBeUsed) {
    for (const auto& [text, rcpts, line] :
         {Unusable{nullptr, "x", "text-open-failed msg=m1 error=2 (No such file"},
          Unusable{"x", "x", "recipients-unreadable msg=m1 error=0 (unusable content)"},
          Unusable{"x", "", "recipients-unreadable msg=m1 error=0"},
          Unusable{"x", nullptr, "recipients-unreadable msg=m1 error=2 (No such file"}}) {
        for (const auto& [suffix, bytes] : {std::pair{"", text}, std::pair{".rmd", rcpts}}) {
            if (bytes != nullptr) {
                writeFile(spool.deferred("m1") + suffix, bytes);
            }
        }
        loggedLines.clear();
        EXPECT_FALSE(send("m1"));
        EXPECT_EQ(spool.names(), "");
        EXPECT_EQ(linesWith(line), 1) << line;
    }
}

TEST_F(Engine, KeepsTheOldListWhenItCannotBeRewritten) {
    mailscanGlobals::mailLogEnable = false;
    spool.queue("m1", kDue, kDue, "<>", {kLater + "\t450"});
    const std::string before = contents(spool.deferred("m1.rmd"));
    fs::create_directories(spool.deferred("m1.rmd~/x"));
    EXPECT_TRUE(send("m1"));
    EXPECT_EQ(contents(spool.deferred("m1.rmd")), before);
    EXPECT_EQ(linesWith("<27> recipients-rewrite-failed msg=m1 from=<> error="), 1);
    ASSERT_EQ(reported.size(), 1U); // with "mail-log" off, nothing tells of the deferral
    EXPECT_EQ(reported[0].m_EventID, 107);
}

TEST_F(Engine, AnUnreadableTextDoesNotEndTheRun) {
    mailscanGlobals::retry_min_interval = 0;
    std::istringstream text("x\n");
    text.setstate(std::ios::badbit);
    engine.recipients().setSender("<s@a.test>");
    engine.recipients().Add(kNever.c_str(), IDS_NO_REASON);
    EXPECT_EQ(engine.Send(text, true, "m1", true), SEND_FINISHED);
    EXPECT_FALSE(spool.returnMail().empty());
}

TEST_F(Engine, OnlyDeferredMailTriesEverybodyInOnePass) {
    for (const auto& [deferred, results] : {std::pair{false, "<2> 421 <1> 422 <3> 1003 "},
                                            std::pair{true, "<1> 1003 <2> 1003 <3> 1003 "}}) {
        for (const int number : {1, 2, 3}) {
            engine.recipients().Add(("<" + std::to_string(number) + ">").c_str(),
                                    static_cast<SMTPcode>(423 - number));
        }
        MailList failed;
        std::istringstream text;
        EXPECT_FALSE(engine.SendOnce(failed, text, deferred));
        std::string found;
        for (const EmailAddr* rcpt = failed.first(); rcpt != nullptr; rcpt = rcpt->next.get()) {
            found += rcpt->text() + (" " + std::to_string(rcpt->reason) + " ");
        }
        EXPECT_EQ(found, results);
    }
}

struct Policy {
    std::int32_t sizeLimit;
    std::int32_t recipientLimit;
    int recipients;
    bool tried;
};
TEST_F(Engine, FreshMailGoesOutByPolicy) {
    for (const auto& [sizeLimit, recipientLimit, recipients, tried] :
         {Policy{0, 0, 2, true}, Policy{9, 1, 1, true}, Policy{9, 5, 2, false},
          Policy{9, 0, 1, false}}) {
        mailscanGlobals::directSendSizeLimit = sizeLimit;
        mailscanGlobals::directSendRecipientLimit = recipientLimit;
        ListSender fresh;
        for (int i = 0; i < recipients; ++i) {
            fresh.recipients().Add(kLater.c_str(), IDS_NO_REASON);
        }
        std::istringstream text("x\n");
        EXPECT_TRUE(fresh.Send(text, "fresh"));
        EXPECT_EQ(spool.envelope("fresh").find("\t1001\n") != std::string::npos, tried)
            << recipients;
        fs::remove(spool.deferred("fresh"));
        fs::remove(spool.deferred("fresh.rmd"));
    }
}

TEST_F(Engine, AStoredMessageNeverTakesTheNameOfAnother) {
    writeFile(spool.deferred("fresh"), "another's");
    engine.recipients().Add(kLater.c_str(), IDS_NO_REASON);
    const std::string body(100000, 'x');
    std::istringstream text(body);
    EXPECT_TRUE(engine.Send(text, "fresh"));
    EXPECT_EQ(contents(spool.deferred("fresh")), "another's");
    EXPECT_EQ(contents(spool.deferred(spool.returnMail())), body);
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
        writeFile(spool.outgoing("o1"), "text\n");
        writeFile(spool.outgoing("o1.rcp"), "<s@a.test>\n" + kLater + "\n");
        if (!possible) {
            mailscanGlobals::deferred_mail_path = FileName("/nonexistent/");
        }
        EXPECT_EQ(send("o1", false), possible);
        EXPECT_FALSE(fs::exists(spool.outgoing("o1")) || fs::exists(spool.outgoing("o1.rcp")));
        EXPECT_EQ(linesWith("<27> move-failed msg=o1 from=<s@a.test> error="), possible ? 0 : 1);
    }
    EXPECT_EQ(spool.names(), "o1 o1.rmd");
    EXPECT_EQ(spool.envelope("o1"), "<s@a.test>\n<x@far.test>\t1001\n");
    EXPECT_EQ(contents(spool.deferred("o1")), "text\n");
}

// --- The walk

struct Walk : testing::Test {
    ScratchSpool spool;
    MailReSender walker;
};

TEST_F(Walk, OffersEveryEntryAndTracesItsSteps) {
    spool.queue("m1", kDue, kDue, "<>", {kLater + "\t450"});
    walker.RetryAll(1);
    const std::string file = "'" + spool.deferred("m1.rmd") + "'";
    const std::string leaf = "'" + spool.deferred("m1") + "'";
    EXPECT_EQ(linesWith("<26> Unable to open '" + spool.deferred("m1.rmd.rmd") + "' error '2'"), 1);
    std::erase_if(loggedLines, [](const std::string& line) {
        return line.find("m1.rmd.rmd") != std::string::npos ||
               line.find("CheckTime") != line.npos || line.find("NextAttempt") != line.npos;
    });
    EXPECT_EQ(
        loggedLines,
        (std::vector<std::string>{
            "<30> Attempting file " + file, "<30> Exclusive on file " + file,
            "<30> Sending " + leaf, "<30>    Sending File", "<30>    Sending to '<x@far.test>'",
            "<30>    Could not open transport for '<x@far.test>'", "<30>    Deferring email",
            "<30> deferred msg=m1 from=<> to=<x@far.test> code=1001 text=Mail Server is down "
            "or unreachable.",
            "<30> Exclusively finished file " + file}));
}

TEST_F(Walk, LeavesAloneWhatIsHeldOrNoMessage) {
    spool.queue("held", kDue, kDue, "<>", {kNever + "\t-1"});
    writeFile(spool.deferred("orphan"), "text");
    fs::create_directory(spool.deferred("dir"));
    ::mkfifo(spool.deferred("fifo.rmd").c_str(), 0600);
    writeFile(spool.deferred("fifo"), "text");
    const int held = ::open(spool.deferred("held.rmd").c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(::flock(held, LOCK_EX | LOCK_NB), 0);
    const std::string before = spool.names();
    walker.RetryAll(0);
    EXPECT_EQ(spool.names(), before);
    EXPECT_TRUE(loggedLines.empty());
    ::close(held);
    walker.RetryAll(0);
    EXPECT_EQ(spool.names(), "dir fifo fifo.rmd orphan");
}

TEST_F(Walk, TakesPathsOfLessThan200Characters) {
    const std::size_t directory = spool.deferred("").size();
    const std::string longest(199 - directory, 'm');
    spool.queue(longest, kDue, kDue, "<>", {kNever + "\t-1"});
    spool.queue(longest + "m", kDue, kDue, "<>", {kNever + "\t-1"});
    walker.RetryAll(1);
    EXPECT_EQ(spool.names(), longest + "m " + longest + "m.rmd");
    EXPECT_EQ(linesWith("<30> Unable to resolve pathname for a file"), 3);
}

TEST_F(Walk, ALockLastsAsLongAsItsOwnerAndIsNoneOnAReplacedFile) {
    using State = Email::MessageLock::State;
    spool.queue("m1", kDue, kDue, "<>", {});
    const std::string file = spool.deferred("m1.rmd");
    {
        const Email::MessageLock lock(file);
        EXPECT_EQ(lock.state(), State::Held);
        EXPECT_EQ(Email::MessageLock(file).state(), State::Busy);
    }
    beforeLock = [&] {
        writeFile(file + "~", "new list");
        fs::rename(file + "~", file);
    };
    EXPECT_EQ(Email::MessageLock(file).state(), State::Busy);
    EXPECT_EQ(Email::MessageLock(file).state(), State::Held);
    beforeLock = [&] { fs::remove(file); };
    EXPECT_EQ(Email::MessageLock(file).state(), State::Busy);
    EXPECT_EQ(Email::MessageLock(file).state(), State::NotOpened);
}

} // namespace
