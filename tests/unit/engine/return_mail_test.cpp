#include "email/ReturnMail.h"

#include "engine_support.h"

#include <gtest/gtest.h>

#include <sstream>

namespace {

TEST(NullSender, IsNothingButBracketsAndBlanks) {
    for (const char* sender : {"", "<>", "< >", "<<> >"}) {
        EXPECT_TRUE(Email::isNullSender(sender)) << sender;
    }
    for (const char* sender : {"<a>", "<\t>", "a@b"}) {
        EXPECT_FALSE(Email::isNullSender(sender)) << sender;
    }
}

TEST(ReturnMail, ListsTheFailedAndQuotesTheText) {
    const ScratchSpool spool;
    MailList failed;
    failed.Add("<b@x.test>", BADHOSTNAME);
    failed.Add("<a@x.test>", static_cast<SMTPcode>(571));
    std::istringstream text("one\n\nthree");
    const std::string body = ": Unknown SMTP code 571\n<b@x.test>: Malformed e-mail address\n"
                             "-------- Returned Mail --------\n\none\n\n";
    for (const char* admin : {"", "<p@gw.test>"}) {
        mailscanGlobals::tolvaneAdmin = admin;
        const std::string mail = Email::returnMail("< s@a.test>", failed, text);
        EXPECT_EQ(mail.substr(0, mail.find("\nDate: ")),
                  std::string("From: ") + (*admin != 0 ? admin : "Z880_SMTP_Mail_Service"));
        EXPECT_EQ(mail.substr(mail.find("\nTo: ")),
                  "\nTo: < s@a.test>\nSubject:Returned Mail - Error During Delivery\n\n"
                  "------ Failed Recipients ------\n\n<a@x.test>" +
                      body);
    }
}

struct Quote {
    std::size_t length; // of the first line
    const char* rest;
    int limit;
    std::ptrdiff_t lines;
    std::size_t bytes;
};
TEST(Quotes, AreBoundedInLinesAndPieces) {
    for (const auto& [length, rest, limit, lines, bytes] :
         {Quote{1023, "\nb\n", 99, 2, 1026}, Quote{1024, "\nb\n", 99, 3, 1028},
          Quote{1024, "\nb\n", 1, 1, 1024}, Quote{2046, "\n", 99, 2, 2048},
          Quote{2047, "", 99, 2, 2048}, Quote{1023, "", 99, 0, 0}, Quote{3, "\nb", 99, 1, 4},
          Quote{3, "\nb\n", 0, 0, 0}, Quote{3, "\n", -1, 0, 0}, Quote{0, "", 9, 0, 0}}) {
        std::istringstream text(std::string(length, 'x') + rest);
        text.seekg(0, std::ios::end);
        text.setstate(std::ios::eofbit | std::ios::failbit);
        std::string out;
        Email::quoteText(out, text, limit);
        EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), lines) << length << rest << limit;
        EXPECT_EQ(out.size(), bytes) << length << rest << limit;
    }
}

TEST(ReturnMail, BuildingEmptiesTheListAndABadTextEndsTheRun) {
    ListSender engine;
    MailList failed;
    failed.Add("<a@x.test>", SELFSEND);
    std::istringstream text("x\n");
    std::ostringstream out;
    EXPECT_TRUE(engine.BuildReturnMail(failed, out, text));
    EXPECT_TRUE(failed.IsEmpty());
    EXPECT_NE(out.str().find("<a@x.test>: Attempt to send mail to self\n"), std::string::npos);
    text.setstate(std::ios::badbit);
    EXPECT_EXIT(engine.BuildReturnMail(failed, out, text), testing::ExitedWithCode(1), "^$");
}

} // namespace
