// Return mail for programs, and how long a message waits for its next try.
#include "email/engine/DeliveryStatus.h"
#include "email/engine/RetrySchedule.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <array>
#include <sstream>

namespace {

TEST(Schedule, WaitsGrowWithTheMessageBetweenItsTwoLimits) {
    // Age at the last attempt, least and longest wait, seconds until the next attempt.
    const std::array<std::array<int, 4>, 8> cases{{{0, 2000, 0, 2000},
                                                   {9000, 2000, 0, 2000},
                                                   {0, 2000, 14400, 2000},
                                                   {2000, 2000, 14400, 2000},
                                                   {9000, 2000, 14400, 9000},
                                                   {90000, 2000, 14400, 14400},
                                                   {-500, 2000, 14400, 2000},
                                                   {9000, 0, 14400, 0}}};
    for (const auto& [age, least, longest, wait] : cases) {
        const DateTime first(1'000'000);
        EXPECT_EQ(Email::waitAfter(first, first + age, least, longest), wait)
            << age << ' ' << longest;
    }
}

TEST(DeliveryStatus, StatusIsTheServersOwnOrFollowsFromTheCode) {
    const std::tuple<int, const char*, const char*> cases[] = {
        {550, "550 5.1.1 no such user", "5.1.1"},
        {550, "550 5.7.999", "5.7.999"},
        {550, "550 no", "5.0.0"},
        {550, "", "5.0.0"},
        {550, "550 4.1.1 mixed up", "5.0.0"},
        {550, "550 5.1.1234 odd", "5.0.0"},
        {550, "550 5.1.1, odd", "5.0.0"},
        {550, "550 5.1", "5.0.0"},
        {552, "552 too big", "5.3.4"},
        {450, "450 4.2.0 grey", "4.4.7"},
        {1001, "", "4.4.7"},
        {1002, "", "5.1.2"},
        {1003, "", "5.1.3"},
        {1004, "", "5.4.6"},
        {1007, "", "5.1.10"}};
    for (const auto& [code, reply, status] : cases) {
        EXPECT_EQ(Email::statusOf(static_cast<SMTPcode>(code), reply), status) << code << reply;
    }
}

constexpr const char* kText = "Subject: x\nTo: y\n\nbody\n=_deadbeef\nlast without end";

std::string mailWith(int maxLines, std::string_view author, const char* text = kText) {
    const std::array<Email::FailedRecipient, 2> failed{
        {{"<a@x.test>", IDS_RTS550, "550 5.1.1 no\r\nFake: \xff",
          IPaddress(::inet_addr("192.0.2.1"))},
         {"<b@y.test>", MXHOST_NOT_FOUND, "", {}}}};
    std::istringstream in(text);
    std::string mail = Email::deliveryStatusMail(
        {"<s@from.test>", "gw.test", author, DateTime(0), maxLines}, failed, in);
    const std::size_t at = mail.find("=_");
    const std::string boundary = mail.substr(at, mail.find('"', at) - at);
    while (mail.find(boundary) != std::string::npos) {
        mail.replace(mail.find(boundary), boundary.size(), "B");
    }
    mail.erase(mail.find("Date: "), mail.find("\nTo:") - mail.find("Date: ") + 1);
    return mail;
}

constexpr const char* kHead =
    "To: <s@from.test>\nSubject: Returned Mail - Error During Delivery\n"
    "Auto-Submitted: auto-replied\nMIME-Version: 1.0\n"
    "Content-Type: multipart/report; report-type=delivery-status;\n"
    "\tboundary=\"B\"\n\n--B\nContent-Type: text/plain\n\n"
    "------ Failed Recipients ------\n\n"
    "<a@x.test>: Requested action not taken: mailbox unavailable. [SMTP Error Code 550]\n"
    "    550 5.1.1 no??Fake: ?\n<b@y.test>: Host not found.\n\n"
    "--B\nContent-Type: message/delivery-status\n\n"
    "Reporting-MTA: dns; gw.test\n\n"
    "Final-Recipient: rfc822; a@x.test\nAction: failed\nStatus: 5.1.1\n"
    "Remote-MTA: dns; [192.0.2.1]\n"
    "Diagnostic-Code: smtp; 550 5.1.1 no??Fake: ?\n\n"
    "Final-Recipient: rfc822; b@y.test\nAction: failed\nStatus: 5.1.2\n"
    "Diagnostic-Code: x-gateway; Host not found.\n";

TEST(DeliveryStatus, MailTellsPeopleAndProgramsAndReturnsWhatFits) {
    const std::string own = "From: Z880_SMTP_Mail_Service <postmaster@gw.test>\n";
    EXPECT_EQ(mailWith(0, "nobody"), own + kHead + "\n--B--\n");
    EXPECT_EQ(mailWith(5, "Admin <a@gw.test>"),
              "From: Admin <a@gw.test>\n" + std::string(kHead) +
                  "\n--B\nContent-Type: message/rfc822\n\nSubject: x\nTo: "
                  "y\n\nbody\n=_deadbeef\n\n--B--\n");
    const std::string headers = own + kHead + "\n--B\nContent-Type: text/rfc822-headers\n\n";
    EXPECT_EQ(mailWith(4, ""), headers + "Subject: x\nTo: y\n\n--B--\n");
    EXPECT_EQ(mailWith(1, ""), headers + "Subject: x\n\n--B--\n");
    EXPECT_EQ(mailWith(1, "", "\nno header\nx\n"), headers + "\n--B--\n");
    EXPECT_NE(
        mailWith(9, "", "S: \xc3\xa9\n").find("rfc822\nContent-Transfer-Encoding: 8bit\n\nS: "),
        std::string::npos);
}

TEST(DeliveryStatus, CharactersBeyondAsciiStandByTheirNumbers) {
    for (const auto& [address, told] :
         {std::pair{"<\xc3\xbc\xe2\x82\xac\xf0\x9f\x98\x80+b@y.test>",
                    "utf-8; \\x{FC}\\x{20AC}\\x{1F600}\\x{2B}b@y.test\n"},
          {"<\xff@y.test>", "rfc822; ?@y.test\n"},
          {"<a+b@y.test>", "rfc822; a+b@y.test\n"}}) {
        const std::array<Email::FailedRecipient, 1> failed{{{address, IDS_RTS550, "", {}}}};
        std::istringstream in(kText);
        EXPECT_NE(Email::deliveryStatusMail({"<>", "gw.test", "", DateTime(0), 0}, failed, in)
                      .find(std::string("\nFinal-Recipient: ") + told),
                  std::string::npos)
            << address;
    }
}

} // namespace
