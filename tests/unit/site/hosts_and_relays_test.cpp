#include "email/site/DomainRelay.h"
#include "email/site/Exchangers.h"
#include "email/site/MXlookup.h"
#include "support/peer.h"

#include <gtest/gtest.h>

#include <netdb.h>

#include <sstream>

using Values = std::vector<std::uint32_t>;
static IPaddressList listed(const Values& values) {
    IPaddressList list;
    std::for_each(values.begin(), values.end(), [&](auto value) { list.Add(IPaddress(value)); });
    return list;
}

static Values values(const IPaddressList& list) {
    Values all;
    for (int i = 0; i < list.count(); ++i) {
        all.push_back(list.addr(i).value);
    }
    return all;
}

TEST(AddressList, TakesInOrderUpToTheLimit) {
    const int cases[][4] = {{0, 5, 3, 3}, {3, 5, 1, 3}, {0, 5, 0, 0}, {99, 5, 200, 100}};
    for (const auto& [held, more, max, count] : cases) {
        IPaddressList list = listed(Values(static_cast<std::size_t>(held), 1));
        EXPECT_EQ(list.Add(listed(Values(static_cast<std::size_t>(more), 2)), max), count);
        EXPECT_EQ(list.addr(count), IPaddress::null);
    }
    BlackList black;
    black.Add(IPaddress(3));
    IPaddressList list = listed({9});
    EXPECT_EQ(list.AddNot(listed({1, 2, 3, 4, 5}), 4, black), 4);
    EXPECT_EQ(values(list), (Values{9, 1, 2, 4}));
}

TEST(BlackList, PurgeMovesTheLastValidEntryIntoTheGap) {
    // Entries with their lives: those of a negative life have expired when they are added. The
    // first entry sets when the next purge may be: one that expires sooner waits for it.
    // clang-format off
    const std::pair<std::vector<std::pair<std::uint32_t, int>>, Values> cases[] = {
        {{{1, -9}}, {}}, {{{1, -9}, {2, -9}, {3, -9}}, {}}, {{{1, 99}, {2, -9}}, {1, 2}},
        {{{1, -9}, {2, 99}, {3, 99}}, {3, 2}}, {{{1, -9}, {2, 99}, {3, -9}}, {2}},
        {{{1, -9}, {2, 99}, {3, -9}, {4, 99}, {5, -9}}, {4, 2}}, {{{1, -9}, {1, 99}, {1, 99}}, {1, 1}}};
    // clang-format on
    for (const auto& [entries, kept] : cases) {
        BlackList black;
        for (const auto& [value, life] : entries) {
            black.SetTimeout(life);
            black.Add(IPaddress(value));
        }
        EXPECT_TRUE(black.InList(IPaddress(1), false)); // expired or not, until a purge
        EXPECT_FALSE(black.InList(IPaddress(99), true));
        EXPECT_EQ(values(black), kept);
    }
}

TEST(Hosts, FirstColumnOfEveryLineIsLocal) {
    std::istringstream text("# 10.0.0.9\n127.0.0.1 localhost\n10.0.0.1\tself\n 10.0.0.2 blank\n\n"
                            "name 10.0.0.3\n10.0.0.4\r\n10.0.0.5");
    std::string found;
    for (const IPaddress local : HostList::readLocals(text)) {
        found += std::to_string(local.value >> 24);
    }
    EXPECT_EQ(found, "1145");
}

TEST(Hosts, LiteralsAreTakenWithoutAsking) {
    ThisHost::local(address("10.0.0.9"));
    const char* const refused = "255.255.255.255";
    // clang-format off
    const std::pair<const char*, const char*> cases[] = {
        {"[10.0.0.1]", "10.0.0.1"}, {"10.0.0.1", "10.0.0.1"}, {"[10.0.0.1", "10.0.0.1"},
        {"[10.0.0.9]", "0.0.0.0"}, {"[", refused}, {"[999.1.1.1]", refused},
        {"[[10.0.0.1]]", refused}, {"100.100.100.1009", "100.100.100.100"}};
    // clang-format on
    for (const auto& [name, found] : cases) {
        IPaddressList out;
        EXPECT_TRUE(HostList::isLiteral(name)) << name;
        const int n = HostList::hostLookup(name, out, 5, true);
        EXPECT_EQ(n, out.count()) << name;
        EXPECT_EQ(out.addr(0), address(found)) << name;
    }
    for (const char* name : {"10.0.0.1x", ".10", "]", ""}) {
        EXPECT_FALSE(HostList::isLiteral(name)) << name;
    }
}

TEST(Hosts, SkippedLocalAddressesUseUpTheLimit) {
    ThisHost::local(IPaddress(2));
    std::uint32_t raw[] = {1, 2, 3};
    char* const first = reinterpret_cast<char*>(raw);
    char* entries[] = {first, first + 4, first + 8, nullptr};
    hostent answer{};
    answer.h_addr_list = entries;
    const std::tuple<int, bool, Values> cases[] = {
        {2, true, {1}}, {2, false, {1, 2}}, {9, true, {1, 3}}, {-1, false, {}}};
    for (const auto& [limit, skip, taken] : cases) {
        IPaddressList out;
        HostList::takeAddresses(answer, out, limit, skip);
        EXPECT_EQ(values(out), taken) << limit;
    }
}

TEST(RelayPattern, Matches) {
    // clang-format off
    const std::tuple<const char*, const char*, bool> cases[] = {
        {"*", "", true}, {"*.", "anything", true}, {"*corp.example", "a.corp.example", false},
        {"*.corp.example", "corp.example", true}, {"*.corp.example", "CORP.EXAMPLE.", true},
        {"*.corp.example.", "a.corp.example", true}, {"*.corp.example", "xcorp.example", false},
        {"*.corp.example", "orp.example", false}, {"*.corp.example", "", false},
        {"a.b.org", "A.B.ORG", true}, {"a.b.org", "a.b.orx", true}, {"a.b.org", "a.b.org.", false},
        {"a.b.org.", "a.b.orx.", false}, {"a.b.org", "a.b.or", false},
        {"a", "b", true}, {"a", ".", false}, {"", "a", false}};
    // clang-format on
    for (const auto& [pattern, domain, match] : cases) {
        EXPECT_EQ(DRinfo(pattern).matches(domain), match) << pattern << ' ' << domain;
    }
}

TEST(Exchangers, AreTriedInTheOrderOfASelectionSortAndCutAtThisHost) {
    using List = std::vector<std::pair<int, std::string>>;
    ThisHost::rename("gw.x");
    // clang-format off
    const std::pair<List, List> cases[] = {
        {{{10, "a."}, {10, "b"}, {5, "c"}}, {{5, "c"}, {10, "b"}, {10, "a"}}},
        {{{10, "a"}, {10, "gw.x"}, {5, "c"}, {20, "b"}}, {{5, "c"}}},
        {{{5, "c"}, {10, "a"}, {10, "gw.x"}}, {{5, "c"}}},
        {{{1, "GW.X"}, {2, "a.gw.x"}, {3, "gw.x.more"}}, {{1, "GW.X"}, {2, "a.gw.x"}}},
        {{{1, "a"}, {2, "127.0.0.1"}}, {{1, "a"}}}, {{{1, "a"}, {2, "localhost.b"}}, {{1, "a"}}}};
    // clang-format on
    for (const auto& [answer, tried] : cases) {
        Email::Exchangers mx;
        mx.count = 0;
        for (const auto& [preference, name] : answer) {
            mx.names[static_cast<std::size_t>(mx.count)] = Resolver::copy(name.c_str());
            mx.preferences[static_cast<std::size_t>(mx.count++)] = preference;
        }
        Resolver::SortMXAnswers(mx.names.data(), mx.preferences.data(), mx.count);
        Resolver::RemoveSameServerMXAnswers(mx.names.data(), mx.preferences.data(), mx.count);
        List left;
        for (std::size_t i = 0; i < static_cast<std::size_t>(mx.count); ++i) {
            left.emplace_back(mx.preferences[i], mx.names[i]);
        }
        EXPECT_EQ(left, tried);
    }
    EXPECT_EQ(Resolver::judge(40, HOST_NOT_FOUND), QUERY_OK); // left over from another question
}

TEST(Resolver, LongestNameHasAByteLessThanItsRoom) {
    for (const auto& [first, good] : {std::pair{'l', true}, {'.', false}}) {
        std::string message;
        for (int i = 0; i < 4; ++i) {
            message += '>' + std::string(62, 'l'); // the sign's number is 62
        }
        message += std::string("\1.") + '\0'; // a dot within a label becomes two characters
        message[1] = first;
        const auto* const start = reinterpret_cast<const unsigned char*>(message.data());
        const auto* p = start;
        std::array<char, Resolver::kNameSize> name{};
        EXPECT_EQ(Resolver::expand(name.data(), start, static_cast<int>(message.size()), p), good);
        EXPECT_EQ(p - start, good ? static_cast<int>(message.size()) : 0);
    }
}

TEST(MXlookup, RemembersWhatItFoundForTheLimitAsked) {
    const auto lookUp = [](const std::string& domain, int max) {
        IPaddressList out;
        eventId event = EV_SELF_SEND;
        const int n = MXlookup().getAddresses(domain.c_str(), out, max, event);
        EXPECT_EQ(event, EV_NONE);
        return n == out.count() ? n : -99;
    };
    MXlookup::clearCache();
    EXPECT_EQ(lookUp("10.0.0.1", 10) + lookUp("[10.0.0.1]", 10), 2);
    ThisHost::local(address("10.0.0.1")); // a new look-up would leave it out
    EXPECT_EQ(lookUp("10.0.0.1", 9), 0);
    EXPECT_EQ(lookUp("[10.0.0.1]", 10), 1);
    for (std::size_t i = 0; i < MXlookup::kCacheEntries; ++i) {
        lookUp("10.1." + std::to_string(i / 256) + '.' + std::to_string(i % 256), 10);
    }
    EXPECT_EQ(lookUp("[10.0.0.1]", 10), 0);
    MXlookup::clearCache();
}
