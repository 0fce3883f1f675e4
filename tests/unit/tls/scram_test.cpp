// SCRAM-SHA-256, by the example of RFC 7677, 3, and by servers that are not what they should be.
#include "tls/ScramClient.h"

#include <gtest/gtest.h>

namespace {

constexpr const char* kNonce = "rOprNGfwEbeRWgbNEkqO";
constexpr const char* kChallenge = "r=rOprNGfwEbeRWgbNEkqO%hvYDpWUa2RaTCAfuxFIlj)hNlF$k0,"
                                   "s=W22ZaJ0SNY7soEsUEjb6gQ==,i=4096";
constexpr const char* kFinal = "v=6rriTRBi23WpRR/wtup+mMhUZUn/dB5nLTJRsjl95G4=";

TEST(Scram, ProvesAndIsProvenAsInTheExample) {
    Email::ScramClient client("user", "pencil", kNonce);
    EXPECT_EQ(client.first(), std::string("n,,n=user,r=") + kNonce);
    EXPECT_FALSE(client.accepts(kFinal)); // nothing was asked yet
    EXPECT_EQ(client.answer(kChallenge),
              "c=biws,r=rOprNGfwEbeRWgbNEkqO%hvYDpWUa2RaTCAfuxFIlj)hNlF$k0,"
              "p=dHzbZapWIk4jUhN+Ute9ytag9zjfMHgsqmmiz7AndVQ=");
    EXPECT_TRUE(client.accepts(kFinal));
    for (const char* wrong : {"", "v=", "v=6rri", "e=other-error", "v=AAAA",
                              "v=6rriTRBi23WpRR/wtup+mMhUZUn/dB5nLTJRsjl95H4=", "x"}) {
        EXPECT_FALSE(client.accepts(wrong)) << wrong;
    }
    EXPECT_EQ(Email::ScramClient("a=b,c", "", "x").first(), "n,,n=a=3Db=2Cc,r=x");
}

TEST(Scram, AnswersNoChallengeThatIsNotAsItMustBe) {
    const std::string nonce = std::string("r=") + kNonce;
    for (const std::string& challenge :
         {std::string(), std::string("r"), nonce + ",s=QQ==,i=4096", nonce + "x,s=QQ==,i=4095",
          nonce + "x,s=QQ==,i=1000001", nonce + "x,s=QQ==,i=99999999999", nonce + "x,s=QQ==,i=-1",
          nonce + "x,s=,i=4096", nonce + "x,s=%,i=4096",
          nonce + "x,i=4096,s=QQ==", nonce + "x,s=QQ==", std::string("r=other,s=QQ==,i=4096"),
          "m=ext," + nonce + "x,s=QQ==,i=4096"}) {
        EXPECT_FALSE(Email::ScramClient("u", "p", kNonce).answer(challenge)) << challenge;
    }
    EXPECT_FALSE(Email::ScramClient("u", "p", "").answer("r=x,s=QQ==,i=4096"));
}

} // namespace
