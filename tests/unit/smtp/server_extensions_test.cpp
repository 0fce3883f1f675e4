// What a server may say of itself, and what protection a domain is to get.
#include "email/site/TlsPolicy.h"
#include "email/smtp/ServerExtensions.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using Email::ServerExtensions;

TEST(ServerExtensions, TakeWhatIsWellSaid) {
    const std::pair<std::vector<const char*>, const char*> cases[] = {
        {{"PIPELINING", "SIZE 1000"}, "SIZE 1000, PIPELINING"},
        {{"pipelining", "8bitMIME", "SmtpUtf8", "StartTLS", "EnhancedStatusCodes"},
         "PIPELINING, 8BITMIME, SMTPUTF8, STARTTLS, ENHANCEDSTATUSCODES"},
        {{"AUTH PLAIN login SCRAM-SHA-256 GSSAPI"}, "AUTH PLAIN, AUTH LOGIN, AUTH SCRAM-SHA-256"},
        {{"AUTH=LOGIN", "AUTH SCRAM-SHA-256-PLUS SCRAM-SHA-1"}, "AUTH LOGIN"},
        {{"SIZE", "SIZE "}, "SIZE"},
        {{"SIZE -1", "SIZE 12k"}, "SIZE"},
        {{"SIZE 99999999999999999999999"}, "SIZE"},
        {{"SIZE=5"}, "SIZE 5"},
        {{"", " ", "STARTTLSX", "XSTARTTLS", "PIPELINING.", "=", "AUTH", "AUTHPLAIN"}, ""}};
    for (const auto& [lines, expected] : cases) {
        ServerExtensions server;
        server.addLine("PIPELINING is this server's name");
        for (const char* line : lines) {
            server.addLine(line);
        }
        EXPECT_EQ(server.text(), expected);
    }
}

TEST(ServerExtensions, LookAtSoManyLinesAndNoMore) {
    ServerExtensions server;
    for (int i = 1; i < ServerExtensions::kMaxLines; ++i) {
        server.addLine("X");
    }
    server.addLine("PIPELINING");
    server.addLine("SIZE 10");
    EXPECT_EQ(server.text(), "PIPELINING");
    server.sizeLimit = 10;
    EXPECT_TRUE(server.tooLarge(11));
    EXPECT_FALSE(server.tooLarge(10) || server.tooLarge(-1));
}

TEST(TlsPolicy, TheFirstPatternThatMatchesDecides) {
    using Email::TlsLevel;
    Email::TlsPolicy policy;
    EXPECT_FALSE(policy.wanted());
    policy.add("*.bank.test", TlsLevel::Verify);
    policy.add("old.test", TlsLevel::None);
    EXPECT_TRUE(policy.wanted());
    policy.add("*.test", *Email::tlsLevel("Encrypt"));
    policy.setDefault(*Email::tlsLevel("may"));
    const std::pair<const char*, const char*> cases[] = {
        {"bank.test", "verify"},   {"a.BANK.test", "verify"}, {"old.test", "none"},
        {"xbank.test", "encrypt"}, {"example.org", "may"},    {"", "may"}};
    for (const auto& [domain, level] : cases) {
        EXPECT_STREQ(tlsWord(policy.levelFor(domain)), level) << domain;
    }
    EXPECT_FALSE(Email::tlsLevel("verif") || Email::tlsLevel(""));
}

} // namespace
