// What a server may say of itself, and what protection a domain is to get.
#include "email/site/TlsPolicy.h"
#include "email/smtp/ServerExtensions.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using Email::ServerExtensions;

// Every property that is set, in words.
std::string told(const ServerExtensions& server) {
    std::string out = server.size ? "size=" + std::to_string(server.sizeLimit) + " " : "";
    const std::pair<bool, const char*> flags[] = {
        {server.pipelining, "pipelining "}, {server.eightBitMime, "8bit "},
        {server.smtpUtf8, "utf8 "},         {server.startTls, "starttls "},
        {server.enhancedCodes, "codes "},   {server.authPlain, "plain "},
        {server.authLogin, "login "},       {server.authScram256, "scram "}};
    for (const auto& [set, word] : flags) {
        out += set ? word : "";
    }
    return out;
}

TEST(ServerExtensions, TakeWhatIsWellSaid) {
    const std::pair<std::vector<const char*>, const char*> cases[] = {
        {{"PIPELINING", "SIZE 1000"}, "size=1000 pipelining "},
        {{"pipelining", "8bitMIME", "SmtpUtf8", "StartTLS", "EnhancedStatusCodes"},
         "pipelining 8bit utf8 starttls codes "},
        {{"AUTH PLAIN login SCRAM-SHA-256 GSSAPI"}, "plain login scram "},
        {{"AUTH=LOGIN", "AUTH SCRAM-SHA-256-PLUS SCRAM-SHA-1"}, "login "},
        {{"SIZE", "SIZE "}, "size=0 "},
        {{"SIZE -1", "SIZE 12k"}, "size=0 "},
        {{"SIZE 99999999999999999999999"}, "size=0 "},
        {{"SIZE=5"}, "size=5 "},
        {{"", " ", "STARTTLSX", "XSTARTTLS", "PIPELINING.", "=", "AUTH", "AUTHPLAIN"}, ""}};
    for (const auto& [lines, expected] : cases) {
        ServerExtensions server;
        server.addLine("PIPELINING is this server's name");
        for (const char* line : lines) {
            server.addLine(line);
        }
        EXPECT_EQ(told(server), expected);
    }
}

TEST(ServerExtensions, LookAtSoManyLinesAndNoMore) {
    ServerExtensions server;
    for (int i = 1; i < ServerExtensions::kMaxLines; ++i) {
        server.addLine("X");
    }
    server.addLine("PIPELINING");
    server.addLine("SIZE 10");
    EXPECT_EQ(told(server), "pipelining ");
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
