#include "email/DomainRelay.h"
#include "email/MXlookup.h"
#include "peer.h"

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

// DNS messages by hand (RFC 1035, 4.1); no reader of ours minds the header's counts.
static std::string number16(int value) {
    return {static_cast<char>(value / 256), static_cast<char>(value % 256)};
}

static std::string name(const std::string& dotted) {
    std::string wire;
    for (std::size_t at = 0; at < dotted.size();) {
        const std::size_t dot = std::min(dotted.find('.', at), dotted.size());
        wire += static_cast<char>(dot - at) + dotted.substr(at, dot - at);
        at = dot + 1;
    }
    return wire + '\0';
}

static std::string record(int type, const std::string& data, int length, int recordClass = 1) {
    return name("") + number16(type) + number16(recordClass) + "life" + number16(length) + data;
}

static std::string mx(int preference, const std::string& exchanger, const std::string& wire = "") {
    return record(15, number16(preference) + (wire.empty() ? name(exchanger) : wire), 9999, 7);
}

static const std::string q = std::string(12, '\0') + name("d.example") + number16(15) + number16(1);

static const unsigned char* bytes(const std::string& message) {
    return reinterpret_cast<const unsigned char*>(message.data());
}

// The exchangers of the answer that are left for the host of this name.
static std::string exchangers(const char* host, const std::string& message) {
    ThisHost::rename(host);
    char* names[Resolver::kMaxExchangers] = {};
    int prefs[Resolver::kMaxExchangers] = {};
    int n = Resolver::kMaxExchangers;
    const bool good =
        Resolver().ParseQuery(bytes(message), static_cast<int>(message.size()), names, prefs, n);
    Resolver::SortMXAnswers(names, prefs, n);
    Resolver::RemoveSameServerMXAnswers(names, prefs, n);
    std::string text = good ? "" : "unusable";
    for (int i = 0; i < n; ++i) {
        text += std::to_string(prefs[i]) + ' ' + names[i] + ';';
    }
    std::for_each(names, std::end(names), [](char* exchanger) { delete[] exchanger; });
    return text;
}

TEST(DnsAnswer, IsReadAsFarAsItHoldsOrderedAndCutAtThisHost) {
    const std::string two = q + mx(20, "b.d") + mx(10, "a.d");
    const std::string l62(62, 'l');
    const std::string l251 = l62 + '.' + l62 + '.' + l62 + '.' + l62;
    const char* found = "10 a.d;20 b.d;";
    // clang-format off
    const std::tuple<const char*, std::string, std::string> cases[] = {
        {"gw", q, ""}, {"gw", q.substr(0, 12), "unusable"}, {"gw", "", "unusable"},
        {"gw", q + mx(5, "", "\x03mx1\xc0\x0c"), "5 mx1.d.example;"},
        {"gw", q + mx(0, ""), "0 ;"},
        {"gw", two + "\1\1\1\1\1\1", found}, {"gw", two + "\xff\xff\xff\xff\xff\xff\xff", "unusable"},
        // Cut in the fixed part, in the preference, in the name, behind the data.
        {"gw", two + mx(5, "x").substr(0, 9), found}, {"gw", two + mx(5, "x").substr(0, 12), found},
        {"gw", two + mx(5, "abcd").substr(0, 15), "unusable"},
        {"gw", two + record(1, "abcd", 600), found},
        {"gw", q + record(16, std::string(448, 't'), 448) + mx(1, "in") + mx(2, "out"), "1 in;"},
        {"gw", two + mx(5, "", "\xc0\x50"), "unusable"},
        {"gw", q + mx(1, l251 + ".a"), "1 " + l251 + ".a;"}, {"gw", q + mx(1, l251 + ".ab"), "unusable"},
        // Exchangers of one preference, and this host among them.
        {"gw", q + mx(10, "a") + mx(10, "b") + mx(5, "c"), "5 c;10 b;10 a;"},
        {"gw.x", q + mx(10, "a") + mx(10, "gw.x") + mx(5, "c") + mx(20, "b"), "5 c;"},
        {"gw.x", q + mx(10, "a") + mx(10, "gw.x"), ""},
        {"gw.x", q + mx(1, "GW.X") + mx(2, "a.gw.x") + mx(3, "gw.x.more"), "1 GW.X;2 a.gw.x;"},
        {"gw", q + mx(1, "a") + mx(2, "127.0.0.1"), "1 a;"},
        {"gw", q + mx(1, "a") + mx(2, "localhost.b"), "1 a;"}, {"", two, ""}};
    // clang-format on
    for (const auto& [host, message, left] : cases) {
        EXPECT_EQ(exchangers(host, message), left)
            << message.substr(q.size() % (message.size() + 1));
    }
}

TEST(MXanswer, DecidesWhereToSend) {
    ThisHost::rename("gw.test");
    ThisHost::local(address("10.9.9.9"));
    const std::string own = q + mx(1, "10.9.9.9");
    const std::string two = q + mx(2, "10.0.0.2") + mx(1, "10.0.0.3"); // literals: nothing is asked
    // clang-format off
    const std::tuple<int, std::string, int, int, eventId, const char*> cases[] = {
        {QUERY_NO_DOMAIN, "", 10, -1, EV_MX_NO_DOMAIN, "0.0.0.0"}, {QUERY_TEMPORARY, "", 10, 0, EV_MX_TEMPFAIL, "0.0.0.0"},
        {QUERY_NO_RECORD, "", 10, 1, EV_MX_NO_RECORD, "10.0.0.1"}, {NETDB_INTERNAL, "", 10, 1, EV_NONE, "10.0.0.1"},
        {QUERY_OK, "garbage", 10, -1, EV_NONE, "0.0.0.0"},
        {QUERY_OK, q + mx(1, "gw.test"), 10, 1, EV_MX_NONE_LEFT, "10.0.0.1"},
        {QUERY_OK, two, 10, 2, EV_NONE, "10.0.0.3"}, {QUERY_OK, two, 1, 1, EV_NONE, "10.0.0.3"},
        {QUERY_OK, own + mx(3, "10.0.0.2") + mx(4, ""), 10, 1, EV_NONE, "10.0.0.2"},
        {QUERY_OK, own, 10, 0, EV_MX_NO_ADDRESS, "0.0.0.0"}};
    // clang-format on
    for (const auto& [result, message, max, count, event, first] : cases) {
        IPaddressList out;
        eventId said = EV_SELF_SEND;
        const int length = static_cast<int>(message.size());
        EXPECT_EQ(MXlookup().useAnswer(result, bytes(message), length, "10.0.0.1", out, max, said),
                  count);
        EXPECT_EQ(said, event);
        EXPECT_EQ(out.addr(0), address(first));
    }
    // clang-format off
    const int judgements[][3] = {
        {40, HOST_NOT_FOUND, QUERY_OK}, {-1, HOST_NOT_FOUND, QUERY_NO_DOMAIN}, {-1, 0, QUERY_TEMPORARY},
        {-1, NO_DATA, QUERY_NO_RECORD}, {-1, TRY_AGAIN, QUERY_TEMPORARY}, {0, NO_DATA, QUERY_TEMPORARY},
        {-1, NO_RECOVERY, QUERY_TEMPORARY}};
    // clang-format on
    for (const auto& [length, error, result] : judgements) {
        EXPECT_EQ(Resolver::judge(length, error), result) << length << ' ' << error;
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
