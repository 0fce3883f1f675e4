#include "email/DomainRelay.h"
#include "email/EmailAddr.h"
#include "email/mailscanGlobals.h"
#include "store_support.h"

#include <array>

namespace {

using G = mailscanGlobals;

constexpr const char* kServer = "198.51.100.1";
constexpr const char* kRelay = "198.51.100.7";
constexpr const char* kFallback = "198.51.100.8";

IPaddress address(const char* literal) {
    IPaddressList list;
    HostList::hostLookup(literal, list, 1, false);
    return list.addr(0);
}

class Address : public testing::Test {
protected:
    ~Address() override {
        G::initialise(nullptr);
        DomainRelay::stdRelays.Clear();
        DomainRelay::fallbackRelays.Clear();
        HostList::BlackL = BlackList();
    }
};

std::string normalised(const std::string& text) {
    std::array<char, EmailAddr::kTextSize> buf;
    EmailAddr::setAddr(buf.data(), text.c_str());
    EXPECT_EQ(EmailAddr(text.c_str(), nullptr, IDS_NO_REASON).text(), std::string(buf.data()));
    return buf.data();
}

TEST_F(Address, IsNormalised) {
    const std::string x2046(2046, 'x');
    G::defaultDomain = "d.example";
    const std::pair<std::string, std::string> cases[] = {
        {"", "<>"},
        {"A B <a@b.c> z", "<a@b.c>"},
        {"<x<a@b.c", "<a@b.c>"},
        {"<a@b.c>d>", "<a@b.c>"},
        {"<a@b.c> <", "<>"},
        {"a@host", "<a@host.d.example>"},
        {"a", "<a.d.example>"},
        {"<a@b> .", "<a@b.d.example>"}, // a dot behind the address does not count
        {x2046 + "yz", '<' + x2046 + '>'},
        {std::string(2036, 'x'), '<' + std::string(2036, 'x') + ".d.example>"},
        {std::string(2037, 'x'), '<' + std::string(2037, 'x') + '>'},
        {x2046 + ".d", '<' + x2046 + '>'},
    };
    for (const auto& [text, expected] : cases) {
        EXPECT_EQ(normalised(text), expected) << text;
    }
    G::defaultDomain = "";
    EXPECT_EQ(normalised("a@host"), "<a@host>");
}

std::string accepted(std::string text, bool allowNull = false) {
    const char* const address = EmailAddr::addrOkay(text.data(), allowNull);
    return address == nullptr ? "none" : address;
}

TEST_F(Address, GrammarAcceptsAndRejects) {
    for (const char* text : {"a@b", "a#$&+=_-.9@b-c.d", "<a@b.c>", R"(<"a b"@c>)", R"(<"a\"b"@c>)",
                             R"(<""@c>)", R"(<"a@b"@c>)", "<a!%'*/?^`{|}~@b>", R"(<a\@b@c>)",
                             "<a@[1.2.3.4]>", "<a@[.......]>", "<\"\x80\"@b>"}) {
        EXPECT_EQ(accepted(text), text);
    }
    EXPECT_EQ(accepted("<a@b.c>tail"), "<a@b.c>");
    EXPECT_EQ(accepted("<@x,@[y]:a@b>"), "<a@b>");
    EXPECT_EQ(accepted(R"(<@x:"a:b"@c>)"), R"(<"a:b"@c>)");
    EXPECT_EQ(accepted("<>", true), "<>");
    for (const char* text : {"<>",
                             "",
                             "a",
                             "@b",
                             "_a@b",
                             "a!@b",
                             "a@",
                             "a@b@c",
                             "a@-b",
                             "<a@b_c>",
                             "<a@[1.2.3.]>",
                             "<a@[1.2.3.4>",
                             "<a@[1.2.3.x]>",
                             "<@b>",
                             "<a b@c>",
                             R"(<"a b@c>)",
                             R"(<"@c>)",
                             R"(<"a\"@c>)",
                             "<a\\\x01@b>",
                             "<\"a\x7f\"@b>",
                             "<a",
                             "<a@b",
                             "<ab>",
                             "<@x:y>",
                             "<@x!:a@b>",
                             "<@x@y:z>",
                             "<\x80@b>",
                             "<@x>:a@b",
                             "<@x:@b>"}) {
        EXPECT_EQ(accepted(text), "none") << text;
    }
    G::allow_nonrfc_domain = "YESterday";
    EXPECT_EQ(accepted("<a@b_c>"), "<a@b_c>");
    EXPECT_EQ(accepted("<a@_c>"), "none");
}

TEST_F(Address, DomainIsTakenOut) {
    std::array<char, EmailAddr::kDomainSize> domain{};
    const auto domainOf = [&](const std::string& text) {
        return EmailAddr(text.c_str(), nullptr, IDS_NO_REASON).GetDomain(domain.data());
    };
    EXPECT_TRUE(domainOf("a@b@c.d"));
    EXPECT_STREQ(domain.data(), "c.d");
    EXPECT_TRUE(domainOf("a@"));
    EXPECT_STREQ(domain.data(), "");
    EXPECT_FALSE(domainOf("abc"));
    EXPECT_TRUE(domainOf("a@" + std::string(255, 'x')));
    EXPECT_FALSE(domainOf("a@" + std::string(256, 'x')));
}

TEST_F(Address, DirectSendIsDecidedByTheFirstEntryThatDiffers) {
    const auto direct = [](const std::string& domains, const char* recipient, int port) {
        charsParam(G::direct_send_internal_domain, "k", table("other x\n" + domains));
        G::mailSendPort = port;
        return EmailAddr(recipient, nullptr, IDS_NO_REASON).CheckForDirectSend();
    };
    EXPECT_FALSE(direct("", "a@b.c", 26));
    EXPECT_FALSE(direct("k x.y", "a@b.c", 25));
    EXPECT_TRUE(direct("k x.y", "a@b.c", 26));
    EXPECT_FALSE(direct("k b.c", "a@b.c", 26));
    EXPECT_TRUE(direct("k B.c", "a@b.c", 26));
    EXPECT_TRUE(direct("k b.c x.y", "a@b.c", 26));
    EXPECT_FALSE(direct("k b.c b.c", "a@b.c", 26));
    EXPECT_FALSE(direct("k x.y", "abc", 26));
    EXPECT_TRUE(direct("k x.y", "a@b.c", 26));
    EXPECT_TRUE(EmailAddr("a@b.c", nullptr, IDS_NO_REASON).suitableHost(IPaddress::loopback));
}

bool suits(const char* recipient, const char* server) {
    return EmailAddr(recipient, nullptr, IDS_NO_REASON).suitableHost(address(server));
}

void relay(DomainRelay& table, std::string host = kRelay) {
    char* hosts[] = {host.data()};
    table.AddDomain("*", hosts, 1);
}

// A literal domain stands for a domain whose exchanger is known.
TEST_F(Address, ServerSuitsByRelayThenExchangerThenFallback) {
    const char* const literal = "a@[198.51.100.1]";
    EXPECT_TRUE(suits(literal, kServer));
    EXPECT_FALSE(suits(literal, kRelay));
    EXPECT_FALSE(suits("nodomain", kServer));

    relay(DomainRelay::fallbackRelays, kFallback);
    EXPECT_TRUE(suits(literal, kServer));
    EXPECT_FALSE(suits(literal, kFallback)); // the exchangers are known
    EXPECT_FALSE(suits("nodomain", kFallback));
    ASSERT_TRUE(HostList::BlackL.Add(address("198.51.100.2"))); // no exchanger remains
    EXPECT_TRUE(suits("a@[198.51.100.2]", kFallback));
    EXPECT_FALSE(suits("a@[198.51.100.2]", kServer));

    relay(DomainRelay::stdRelays);
    EXPECT_TRUE(suits(literal, kRelay));
    EXPECT_FALSE(suits(literal, kServer)); // never looked up behind a relay
    EXPECT_FALSE(suits(literal, kFallback));
    EXPECT_FALSE(suits("nodomain", kRelay));
}

TEST_F(Address, ExchangersAreLookedUpOnce) {
    EmailAddr known("a@[198.51.100.1]", nullptr, IDS_NO_REASON);
    IPaddressList out;
    EXPECT_EQ(known.GetMXhosts(out, 10), 1);
    EXPECT_EQ(out.addr(0), address(kServer));
    EXPECT_EQ(known.GetMXhosts(out, 1), 1); // full
    EXPECT_EQ(known.GetMXhosts(out, 10), 2);

    EmailAddr none("nodomain", nullptr, IDS_NO_REASON);
    EXPECT_LT(none.GetMXhosts(out, 10), 1);
    EXPECT_EQ(out.count(), 2);
    EXPECT_EQ(none.GetMXhosts(out, 10), 2); // the count of `out`, no second lookup
}

TEST_F(Address, BlacklistedRelayGivesWayToTheExchanger) {
    relay(DomainRelay::stdRelays);
    ASSERT_TRUE(HostList::BlackL.Add(address(kRelay)));
    EXPECT_TRUE(suits("a@[198.51.100.1]", kServer));
    EXPECT_FALSE(suits("a@[198.51.100.1]", kRelay));
}

} // namespace
