#include "email/site/HostList.h"
#include "support/mail.h"

#include <tuple>

namespace {

using G = mailscanGlobals;

struct Address : testing::Test {
    ~Address() override {
        G::initialise(nullptr);
        DomainRelay::stdRelays.Clear();
        DomainRelay::fallbackRelays.Clear();
        HostList::BlackL = BlackList();
    }
};

EmailAddr record(const std::string& text) {
    return EmailAddr(text.c_str(), nullptr, IDS_NO_REASON);
}

IPaddress server(char last) {
    IPaddressList list;
    HostList::hostLookup((std::string("198.51.100.") + last).c_str(), list, 1, false);
    return list.addr(0);
}

std::string x(std::size_t n) {
    return std::string(n, 'x');
}

TEST_F(Address, IsNormalised) {
    // clang-format off
    const std::tuple<const char*, std::string, std::string> cases[] = {
        {"d.example", "", "<>"}, 
        {"d.example", "<x<a@b.c", "<a@b.c>"}, {"d.example", "<a@b.c>d>", "<a@b.c>"},
        {"d.example", "<a@b.c> <", "<>"}, 
        {"", "a@host", "<a@host>"}, {"d.example", "a", "<a.d.example>"},
        {"d.example", "<a@b> .", "<a@b.d.example>"}, // a dot behind the address does not count
        {"d.example", x(2036), '<' + x(2036) + ".d.example>"},
        {"d.example", x(2037), '<' + x(2037) + '>'},
        {"d.example", x(2048), '<' + x(2046) + '>'},
        {"d.example", x(2046) + ".d", '<' + x(2046) + '>'}};
    // clang-format on
    for (const auto& [domain, text, expected] : cases) {
        G::defaultDomain = domain;
        std::array<char, EmailAddr::kTextSize> buf;
        EmailAddr::setAddr(buf.data(), text.c_str());
        EXPECT_EQ(buf.data(), expected);
        EXPECT_EQ(record(text).text(), expected);
    }
}

std::string accepted(std::string text, bool allowNull = false) {
    const char* const address = EmailAddr::addrOkay(text.data(), allowNull);
    return address == nullptr ? "none" : address;
}

TEST_F(Address, GrammarAcceptsAndRejects) {
    // clang-format off
    for (const char* text : {
             "a@b", "a#$&+=_-.9@b-c.d", "<a@b.c>", R"(<"a b"@c>)", R"(<"a\"b"@c>)", R"(<""@c>)",
             R"(<"a@b"@c>)", "<a!%'*/?^`{|}~@b>", R"(<a\@b@c>)", "<a@[1.2.3.4]>", "<a@[.......]>",
             "<\"\x80\"@b>"}) {
        EXPECT_EQ(accepted(text), text);
    }
    for (const char* text : {
             "<>", "", "a", "@b", "_a@b", "a!@b", "a@", "a@b@c", "a@-b", "<a@b_c>", "<a@[1.2.3.]>",
             "<a@[1.2.3.4>", "<a@[1.2.3.x]>", "<@b>", "<a b@c>", R"(<"a b@c>)", R"(<"@c>)",
             R"(<"a\"@c>)", "<a\\\x01@b>", "<\"a\x7f\"@b>", "<a", "<a@b", "<ab>", "<@x:y>",
             "<@x!:a@b>", "<@x@y:z>", "<\x80@b>", "<@x>:a@b", "<@x:@b>"}) {
        EXPECT_EQ(accepted(text), "none") << text;
    }
    // clang-format on
    EXPECT_EQ(accepted("<>", true) + accepted("<a@b.c>tail"), "<><a@b.c>");
    EXPECT_EQ(accepted("<@x,@[y]:a@b>") + accepted(R"(<@x:"a:b"@c>)"), R"(<a@b><"a:b"@c>)");
    G::allow_nonrfc_domain = "YESterday";
    EXPECT_EQ(accepted("<a@b_c>") + accepted("<a@_c>"), "<a@b_c>none");
}

TEST_F(Address, DirectSendIsDecidedByTheFirstEntryThatDiffers) {
    // clang-format off
    const std::tuple<const char*, const char*, int, bool> cases[] = {
        {"", "a@b.c", 26, false}, {"k x.y", "a@b.c", 25, false}, {"k x.y", "a@b.c", 26, true},
        {"k b.c", "a@b.c", 26, false}, {"k B.c", "a@b.c", 26, true}, {"k x.y", "abc", 26, false},
        {"k b.c x.y", "a@b.c", 26, true}, {"k b.c b.c", "a@b.c", 26, false}};
    // clang-format on
    for (const auto& [domains, recipient, port, direct] : cases) {
        charsParam(G::direct_send_internal_domain, "k", table(std::string("other x\n") + domains));
        G::mailSendPort = port;
        EXPECT_EQ(record(recipient).CheckForDirectSend(), direct) << domains;
        EXPECT_EQ(record(recipient).suitableHost(IPaddress::loopback), direct) << domains;
    }
}

// Which servers suit a recipient, whether it was asked before or not. A literal domain stands for
// one whose exchanger is known.
std::string suiting(const char* recipient) {
    std::string suiting;
    EmailAddr askedBefore = record(recipient);
    for (const char last : {'1', '2', '7', '8'}) {
        const bool suits = record(recipient).suitableHost(server(last));
        EXPECT_EQ(askedBefore.suitableHost(server(last)), suits) << last;
        suiting += suits ? std::string(1, last) : "";
    }
    return suiting + ' ';
}

TEST_F(Address, ServerSuitsByRelayThenExchangerThenFallback) {
    const char* const known = "a@[198.51.100.1]";
    std::string fallback = "198.51.100.8";
    std::string relay = "198.51.100.7";
    char* hosts[] = {fallback.data(), relay.data()};
    EXPECT_EQ(suiting(known) + suiting("nodomain"), "1  ");
    DomainRelay::fallbackRelays.AddDomain("*", hosts, 1);
    ASSERT_TRUE(HostList::BlackL.Add(server('2'))); // the second has no exchanger left
    EXPECT_EQ(suiting(known) + suiting("nodomain") + suiting("a@[198.51.100.2]"), "1  8 ");
    DomainRelay::stdRelays.AddDomain("*", hosts + 1, 1); // behind a relay there is no lookup
    EXPECT_EQ(suiting(known) + suiting("nodomain"), "7  ");
    ASSERT_TRUE(HostList::BlackL.Add(server('7')));
    EXPECT_EQ(suiting(known), "1 ");
}

TEST_F(Address, ExchangersAreLookedUpOnce) {
    EmailAddr known = record("a@[198.51.100.1]");
    EmailAddr none = record("nodomain");
    IPaddressList out;
    EXPECT_TRUE(known.GetMXhosts(out, 10) == 1 && out.addr(0) == server('1'));
    EXPECT_EQ(known.GetMXhosts(out, 1), 1); // full
    EXPECT_EQ(known.GetMXhosts(out, 10), 2);
    EXPECT_LT(none.GetMXhosts(out, 10), 1);
    EXPECT_EQ(none.GetMXhosts(out, 10), 2); // the count of `out`, no second lookup
}

TEST_F(Address, RecipientsLeaveAListByServerOrByTurn) {
    MailList list;
    for (const char* text : {"a@[198.51.100.1]", "b@[198.51.100.2]"}) {
        list.Add(text, IDS_RTS450);
    }
    EXPECT_EQ(list.Remove(server('3')), nullptr);
    EXPECT_STREQ(list.Remove(server('1'))->text(), "<a@[198.51.100.1]>");
    std::array<char, EmailAddr::kTextSize> text;
    SMTPcode code = IDS_NO_REASON;
    EXPECT_TRUE(list.Remove(text.data(), &code) && list.IsEmpty());
    EXPECT_EQ(text.data() + std::to_string(code), "<b@[198.51.100.2]>450");
    EXPECT_FALSE(list.Remove(text.data(), nullptr));
}

TEST(MailList, RecordsKeepTheirCodeUnlessAnotherIsGiven) {
    MailList list;
    MailList other;
    list.Add(std::make_unique<EmailAddr>("own", nullptr, IDS_RTS550), IDS_NO_REASON);
    list.Add(std::make_unique<EmailAddr>("set", nullptr, IDS_RTS550), IDS_RTS451);
    other.Add(list, true, IDS_NO_REASON);
    EXPECT_EQ(records(other), "<set>:451 <own>:550 ");
}

// The first pair becomes the head.
void fill(MailList& list, std::initializer_list<std::pair<const char*, int>> records) {
    for (auto it = std::rbegin(records); it != std::rend(records); ++it) {
        list.Add(it->first, static_cast<SMTPcode>(it->second));
    }
}

TEST(MailList, CopiesAreReversedAndMovedOrDeferredOnesKeepTheirOrder) {
    MailList other;
    MailList list;
    fill(other, {{"a", 450}, {"b", 550}});
    fill(list, {{"c", 451}});
    list.Add(other, false, IDS_NO_REASON);
    list.Add(other, true, COMMS_FAILED);
    EXPECT_EQ(records(list), "<a>:1001 <b>:1001 <b>:550 <a>:450 <c>:451 ");
    list.Add(other, true, IDS_RTS450); // an empty one
    fill(other, {{"d", 1}});
    other = list;
    EXPECT_EQ(records(other), records(list));
    list.Destroy();
    fill(list, {{"e", 554}});
    list.ExtractDeferred(other);
    EXPECT_EQ(records(list) + records(other), "<a>:1001 <b>:1001 <a>:450 <c>:451 <e>:554 <b>:550 ");
    std::string kept;
    for (const int code : {-2147483647, -1, 0, 250, 499, 500, 1000, 1001, 1002, 1003, 1004, 1005,
                           1006, 1007, 2147483647}) {
        kept += MailList::deferCode(code) ? std::to_string(code) + ' ' : "";
    }
    EXPECT_EQ(kept, "-2147483647 -1 0 250 499 1001 1005 1006 ");
}

TEST(MailList, AllNamesEndsBeforeTheFirstThatDoesNotFit) {
    // clang-format off
    const std::pair<std::vector<std::size_t>, std::string> cases[] = {
        {{}, ""}, {{2, 1}, "<x> <xx>"}, {{1, 2046}, '<' + x(2046) + '>'}, // no room for a blank
        {{1, 1, 2042}, '<' + x(2042) + "> <x>"}, {{1, 2043}, '<' + x(2043) + '>'},
        {{1, 2000, 1000}, '<' + x(1000) + '>'}};
    // clang-format on
    for (const auto& [lengths, expected] : cases) {
        MailList list;
        for (const std::size_t length : lengths) {
            list.Add(x(length).c_str(), IDS_NO_REASON);
        }
        std::array<char, EmailAddr::kTextSize + 1> buf;
        buf.back() = '#';
        list.AllNames(buf.data());
        EXPECT_TRUE(buf.data() == expected && buf.back() == '#') << expected;
    }
}

TEST(MailList, LongListsNeedNoStack) {
    MailList list;
    for (int i = 0; i < 400'000; ++i) { // deep enough to end a stack that recurses
        list.Add("a@b.example", i % 2 == 0 ? IDS_RTS450 : IDS_RTS550);
    }
    MailList copy;
    copy = list;
    MailList deferred;
    deferred.ExtractDeferred(copy);
    deferred.Add(copy, true, IDS_RTS450);
    EXPECT_EQ(records(deferred).size(), records(list).size());
}

} // namespace
