#include "peer.h"

#include <gtest/gtest.h>

#include <netdb.h>

#include <bit>
#include <sstream>

using Values = std::vector<std::uint32_t>;

static IPaddressList numbered(std::uint32_t n) {
    IPaddressList list;
    for (std::uint32_t i = 1; i <= n; ++i) {
        list.Add(IPaddress(i));
    }
    return list;
}

static Values values(const IPaddressList& list) {
    Values all;
    for (int i = 0; i < list.count(); ++i) {
        all.push_back(list.addr(i).value);
    }
    return all;
}

TEST(Address, IsWrittenByteByByteFromTheLowest) {
    char text[IPaddress::kTextSize];
    EXPECT_EQ(address("10.1.2.3").format(text), 8);
    EXPECT_STREQ(text, "10.1.2.3");
    IPaddress::loopback.format(text);
    EXPECT_STREQ(text, std::endian::native == std::endian::little ? "1.0.0.127" : "127.0.0.1");
}

TEST(AddressList, TakesInOrderUpToTheLimit) {
    const struct {
        std::uint32_t held, more;
        int max, count;
    } cases[] = {{0, 5, 3, 3}, {3, 5, 1, 3}, {0, 5, 0, 0}, {2, 2, 100, 4}, {99, 5, 200, 100}};
    for (const auto& c : cases) {
        IPaddressList list = numbered(c.held);
        EXPECT_EQ(list.Add(numbered(c.more), c.max), c.count) << c.held << ' ' << c.max;
    }
    EXPECT_EQ(numbered(100).addr(100), IPaddress::null);
    BlackList black;
    black.Add(IPaddress(3));
    IPaddressList list;
    EXPECT_EQ(list.AddNot(numbered(12), 10, black), 10);
    EXPECT_EQ(values(list), (Values{1, 2, 4, 5, 6, 7, 8, 9, 10, 11}));
}

// Entries of a negative life have expired when they are added.
using Lives = std::vector<std::pair<std::uint32_t, int>>;
static BlackList blackList(const Lives& entries) {
    BlackList black;
    for (const auto& [value, life] : entries) {
        black.SetTimeout(life);
        black.Add(IPaddress(value));
    }
    return black;
}

TEST(BlackList, PurgeMovesTheLastValidEntryIntoTheGap) {
    const std::pair<Lives, Values> cases[] = {
        {{{1, -9}}, {}},
        {{{1, -9}, {2, 99}, {3, 99}}, {3, 2}},
        {{{1, -9}, {2, 99}, {3, -9}}, {2}},
        {{{1, -9}, {2, -9}, {3, -9}}, {}},
        {{{1, -9}, {2, 99}, {3, -9}, {4, 99}, {5, -9}}, {4, 2}},
        {{{1, -9}, {1, 99}, {1, 99}}, {1, 1}},
        // The first entry sets when the next purge may be: one that expires sooner waits for it.
        {{{1, 99}, {2, -9}}, {1, 2}},
    };
    for (const auto& [entries, kept] : cases) {
        BlackList black = blackList(entries);
        EXPECT_TRUE(black.InList(IPaddress(1), false)); // expired or not, until a purge
        EXPECT_FALSE(black.InList(IPaddress(99), true));
        EXPECT_EQ(values(black), kept);
    }
}

TEST(Hosts, FirstColumnOfEveryLineIsLocal) {
    std::istringstream text("# 10.0.0.9\n127.0.0.1 localhost\n10.0.0.1\tself\n 10.0.0.2 blank\n\n"
                            "name 10.0.0.3\n10.0.0.4\r\n10.0.0.5");
    const std::vector<IPaddress> expected{address("127.0.0.1"), address("10.0.0.1"),
                                          address("10.0.0.4"), address("10.0.0.5")};
    EXPECT_EQ(HostList::readLocals(text), expected);
}

TEST(Hosts, LiteralsAreTakenWithoutAsking) {
    ThisHost::local(address("10.0.0.9"));
    const std::pair<const char*, const char*> cases[] = {
        {"[10.0.0.1]", "10.0.0.1"}, {"10.0.0.1", "10.0.0.1"},
        {"[10.0.0.1", "10.0.0.1"},  {"[999.1.1.1]", "255.255.255.255"},
        {"[", "255.255.255.255"},   {"[[10.0.0.1]]", "255.255.255.255"},
        {"[10.0.0.9]", "0.0.0.0"},  {"100.100.100.1009", "100.100.100.100"},
    };
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
    char* entries[] = {reinterpret_cast<char*>(&raw[0]), reinterpret_cast<char*>(&raw[1]),
                       reinterpret_cast<char*>(&raw[2]), nullptr};
    hostent answer{};
    answer.h_addr_list = entries;
    const struct {
        int limit;
        bool skip;
        Values taken;
    } cases[] = {{2, true, {1}}, {2, false, {1, 2}}, {9, true, {1, 3}}, {-1, false, {}}};
    for (const auto& c : cases) {
        IPaddressList out;
        HostList::takeAddresses(answer, out, c.limit, c.skip);
        EXPECT_EQ(values(out), c.taken) << c.limit;
    }
}
