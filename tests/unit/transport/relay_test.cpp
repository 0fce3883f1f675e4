#include "email/DomainRelay.h"

#include "peer.h"

#include "email/mailscanGlobals.h"
#include "fwall/config.h"

#include <gtest/gtest.h>

#include <array>

TEST(RelayPattern, Matches) {
    const struct {
        const char* pattern;
        const char* domain;
        bool match;
    } cases[] = {
        {"*", "", true},
        {"*.corp.example", "corp.example", true},
        {"*.corp.example", "CORP.EXAMPLE.", true},
        {"*.corp.example.", "a.corp.example", true},
        {"*.corp.example", "xcorp.example", false},
        {"*.corp.example", "orp.example", false},
        {"*.corp.example", "", false},
        {"*.", "anything", true},
        {"*corp.example", "a.corp.example", false},
        {"mail.example.org", "MAIL.EXAMPLE.ORG", true},
        {"mail.example.org", "mail.example.orx", true},
        {"mail.example.org", "mail.example.org.", false},
        {"mail.example.org.", "mail.example.orx.", false},
        {"mail.example.org", "mail.example.or", false},
        {"a", "b", true},
        {"a", ".", false},
        {"", "a", false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(DRinfo(c.pattern).matches(c.domain), c.match) << c.pattern << ' ' << c.domain;
    }
}

// A line of the rule table, as the reader of the file would give it.
struct Line : cfgrec {
    Line(const char* key, std::initializer_list<const char*> text, cfgrec* following) {
        for (const char* word : text) {
            words[static_cast<std::size_t>(argc++)] = const_cast<char*>(word);
        }
        op = const_cast<char*>(key);
        argv = words.data();
        next = following;
    }
    std::array<char*, 6> words{};
};

static IPaddress firstRelay(DomainRelay& relays, const char* domain, int count) {
    IPaddressList out;
    eventId event = EV_SELF_SEND;
    EXPECT_EQ(relays.getAddresses(domain, out, 10, event), count) << domain;
    EXPECT_EQ(event, EV_NONE);
    return out.addr(0);
}

TEST(RelayTable, FirstMatchingLineWins) {
    mailscanGlobals::max_addr_to_try = 3;
    Line all("domain-relay", {"*", "10.9.0.2", "10.9.0.5", "10.9.0.6", "10.9.0.7"}, nullptr);
    Line lost("domain-relay", {"lost.example", ""}, &all);
    Line fallback("fallback-relay", {"*", "10.9.0.3"}, &lost);
    Line corp("domain-relay", {"*.corp.example", "[10.9.0.1]"}, &fallback);
    DomainRelay::initialise(&corp);
    mailscanGlobals::max_addr_to_try = 10;
    EXPECT_EQ(firstRelay(DomainRelay::stdRelays, "a.corp.example", 1), address("10.9.0.1"));
    EXPECT_EQ(firstRelay(DomainRelay::stdRelays, "lost.example", 3), address("10.9.0.2"));
    EXPECT_EQ(firstRelay(DomainRelay::fallbackRelays, "a.corp.example", 1), address("10.9.0.3"));
    DomainRelay::relaysParam(DomainRelay::stdRelays, "no-such-key", &corp);
    EXPECT_EQ(firstRelay(DomainRelay::stdRelays, "a.corp.example", 0), IPaddress::null);
    DomainRelay::initialise(nullptr);
    EXPECT_TRUE(DomainRelay::fallbackRelays.empty());
}

TEST(RelayTable, ALineWithoutARelayEndsTheRun) {
    Line line("domain-relay", {"*"}, nullptr);
    EXPECT_EXIT(DomainRelay::initialise(&line), testing::ExitedWithCode(1), "^$");
}
