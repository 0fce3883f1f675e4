#include "email/MXlookup.h"

#include "peer.h"

#include <gtest/gtest.h>

#include <netdb.h>

// DNS messages by hand (RFC 1035, 4.1); the header's counts are zero, which no reader of ours
// minds.
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

static std::string record(int type, const std::string& data, int recordClass, int length) {
    return name("") + number16(type) + number16(recordClass) + "life" + number16(length) + data;
}

static std::string rawMx(int preference, const std::string& wireName) {
    const std::string data = number16(preference) + wireName;
    return record(15, data, 1, static_cast<int>(data.size()));
}

static std::string mx(int preference, const std::string& exchanger) {
    return rawMx(preference, name(exchanger));
}

static const std::string q = std::string(12, '\0') + name("d.example") + number16(15) + number16(1);

static const unsigned char* bytes(const std::string& message) {
    return reinterpret_cast<const unsigned char*>(message.data());
}

struct Exchangers {
    char* names[Resolver::kMaxExchangers] = {};
    int prefs[Resolver::kMaxExchangers] = {};
    int count = 0;

    Exchangers() = default;
    Exchangers(const Exchangers&) = delete;
    Exchangers& operator=(const Exchangers&) = delete;
    ~Exchangers() {
        for (char* exchanger : names) {
            delete[] exchanger;
        }
    }
    bool parse(const std::string& message) {
        count = Resolver::kMaxExchangers;
        return Resolver().ParseQuery(bytes(message), static_cast<int>(message.size()), names, prefs,
                                     count);
    }
    [[nodiscard]] std::string text() const {
        std::string all;
        for (int i = 0; i < count; ++i) {
            all += std::to_string(prefs[i]) + ' ' + names[i] + ';';
        }
        return all;
    }
};

TEST(DnsAnswer, IsReadAsFarAsItHolds) {
    const std::string two = mx(20, "mx2.d") + mx(10, "mx1.d");
    const std::string found = "20 mx2.d;10 mx1.d;";
    const std::string other = record(1, "\x0a\x01\x02\x03", 1, 4);
    const std::string l62(62, 'l');
    std::string many = q;
    std::string ten;
    for (int i = 12; i > 0; --i) {
        many += mx(i, "m");
        ten += i > 2 ? std::to_string(i) + " m;" : "";
    }
    const struct {
        const char* what;
        std::string message;
        bool good;
        std::string found;
    } cases[] = {
        {"message order, other types passed over", q + other + two + other, true, found},
        {"a pointer to the question", q + rawMx(5, "\x03mx1\xc0\x0c"), true, "5 mx1.d.example;"},
        {"the null exchanger", q + mx(0, ""), true, "0 ;"},
        {"class and length of an exchanger are not looked at",
         q + record(15, number16(7) + name("a"), 3, 9999), true, "7 a;"},
        {"no more than ten", many, true, ten},
        {"nothing behind the question", q, true, ""},
        {"six bytes are no record", q + two + "\1\1\1\1\1\1", true, found},
        {"cut in the fixed part", q + two + mx(5, "x").substr(0, 9), true, found},
        {"cut in the preference", q + two + mx(5, "x").substr(0, 12), true, found},
        {"a data length past the end", q + two + record(1, "abcd", 1, 600), true, found},
        {"nothing behind 512 bytes",
         q + record(16, std::string(448, 't'), 1, 448) + mx(1, "in") + mx(2, "out"), true, "1 in;"},
        {"cut in the exchanger's name", q + two + mx(5, "abcd").substr(0, 15), false, ""},
        {"a pointer to itself", q + two + rawMx(5, "\xc0\x50"), false, ""},
        {"a pointer past the end", q + rawMx(5, "\xc3\xff"), false, ""},
        {"a label past the end", q + rawMx(5, "\x3fxyz"), false, ""},
        {"an owner that is no name", q + two + "\xff\xff\xff\xff\xff\xff\xff\xff", false, ""},
        {"a name too long", q + mx(1, l62 + '.' + l62 + '.' + l62 + '.' + l62 + ".abcd"), false,
         ""},
        {"no question", q.substr(0, 12), false, ""},
        {"nothing", "", false, ""},
    };
    for (const auto& c : cases) {
        Exchangers list;
        EXPECT_EQ(list.parse(c.message), c.good) << c.what;
        EXPECT_EQ(list.text(), c.found) << c.what;
    }
}

TEST(Exchangers, AreOrderedAndCutAtThisHost) {
    const struct {
        const char* host;
        std::vector<std::pair<int, const char*>> mx;
        const char* left;
    } cases[] = {
        {"gw", {{20, "b."}, {10, "a"}}, "10 a;20 b;"},
        {"gw", {{10, "mxa"}, {10, "mxb"}, {5, "mxc"}}, "5 mxc;10 mxb;10 mxa;"},
        {"gw.x", {{10, "other"}, {10, "gw.x"}, {5, "best"}, {20, "worse"}}, "5 best;"},
        {"gw.x", {{10, "other"}, {10, "gw.x"}}, ""},
        {"gw.x", {{1, "GW.X"}, {2, "a.gw.x"}, {3, "gw.x.more"}}, "1 GW.X;2 a.gw.x;"},
        {"gw", {{1, "a"}, {2, "127.0.0.1"}}, "1 a;"},
        {"gw", {{1, "a"}, {2, "localhost.b"}}, "1 a;"},
        {"", {{1, "a"}, {2, "b"}}, ""},
        {"gw", {{0, "."}}, "0 ;"},
    };
    for (const auto& c : cases) {
        ThisHost::rename(c.host);
        Exchangers list;
        for (const auto& [preference, exchanger] : c.mx) {
            list.prefs[list.count] = preference;
            list.names[list.count++] = Resolver::copy(exchanger);
        }
        Resolver::SortMXAnswers(list.names, list.prefs, list.count);
        Resolver::RemoveSameServerMXAnswers(list.names, list.prefs, list.count);
        EXPECT_EQ(list.text(), c.left);
    }
}

TEST(MXanswer, DecidesWhereToSend) {
    ThisHost::rename("gw.test");
    ThisHost::local(address("10.9.9.9"));
    const std::string own = mx(1, "10.9.9.9");
    const std::string two = mx(2, "10.0.0.2") + mx(1, "10.0.0.3"); // literals: nothing is asked
    const struct {
        int result;
        std::string message;
        int max, count;
        eventId event;
        const char* first;
    } cases[] = {
        {QUERY_NO_DOMAIN, "", 10, -1, EV_MX_NO_DOMAIN, "0.0.0.0"},
        {QUERY_TEMPORARY, "", 10, 0, EV_MX_TEMPFAIL, "0.0.0.0"},
        {QUERY_NO_RECORD, "", 10, 1, EV_MX_NO_RECORD, "10.0.0.1"},
        {NETDB_INTERNAL, "", 10, 1, EV_NONE, "10.0.0.1"},
        {QUERY_OK, "garbage", 10, -1, EV_NONE, "0.0.0.0"},
        {QUERY_OK, q, 10, 1, EV_MX_NONE_LEFT, "10.0.0.1"},
        {QUERY_OK, q + mx(1, "gw.test"), 10, 1, EV_MX_NONE_LEFT, "10.0.0.1"},
        {QUERY_OK, q + two, 10, 2, EV_NONE, "10.0.0.3"},
        {QUERY_OK, q + two, 1, 1, EV_NONE, "10.0.0.3"},
        {QUERY_OK, q + own + mx(3, "10.0.0.2") + mx(4, ""), 10, 1, EV_NONE, "10.0.0.2"},
        {QUERY_OK, q + own, 10, 0, EV_MX_NO_ADDRESS, "0.0.0.0"},
        {QUERY_OK, q + mx(1, ""), 10, 0, EV_MX_NO_ADDRESS, "0.0.0.0"},
    };
    for (const auto& c : cases) {
        IPaddressList out;
        eventId event = EV_SELF_SEND;
        EXPECT_EQ(MXlookup().useAnswer(c.result, bytes(c.message),
                                       static_cast<int>(c.message.size()), "10.0.0.1", out, c.max,
                                       event),
                  c.count);
        EXPECT_EQ(event, c.event);
        EXPECT_EQ(out.addr(0), address(c.first));
    }
}

TEST(MXanswer, IsJudgedByItsLengthFirst) {
    const int cases[][3] = {{40, HOST_NOT_FOUND, QUERY_OK},
                            {0, 0, QUERY_TEMPORARY},
                            {-1, HOST_NOT_FOUND, QUERY_NO_DOMAIN},
                            {-1, TRY_AGAIN, QUERY_TEMPORARY},
                            {-1, NO_RECOVERY, QUERY_TEMPORARY},
                            {-1, NO_DATA, QUERY_NO_RECORD},
                            {-1, 0, QUERY_TEMPORARY}};
    for (const auto& [length, error, result] : cases) {
        EXPECT_EQ(Resolver::judge(length, error), result) << length << ' ' << error;
    }
}

TEST(MXlookup, RemembersWhatItFoundForTheLimitAsked) {
    const auto lookUp = [](const std::string& domain, int max) {
        IPaddressList out;
        eventId event = EV_SELF_SEND;
        const int n = MXlookup().getAddresses(domain.c_str(), out, max, event);
        EXPECT_EQ(event, EV_NONE);
        EXPECT_EQ(out.count(), n);
        return n;
    };
    MXlookup::clearCache();
    EXPECT_EQ(lookUp("[10.0.0.1]", 10), 1);
    ThisHost::local(address("10.0.0.1")); // a new look-up would leave it out
    EXPECT_EQ(lookUp("[10.0.0.1]", 9), 0);
    EXPECT_EQ(lookUp("[10.0.0.2]", 10), 1);
    ThisHost::local(address("10.0.0.2"));
    EXPECT_EQ(lookUp("[10.0.0.2]", 10), 1);
    for (std::size_t i = 0; i < MXlookup::kCacheEntries; ++i) {
        lookUp("10.1." + std::to_string(i / 256) + '.' + std::to_string(i % 256), 10);
    }
    EXPECT_EQ(lookUp("[10.0.0.2]", 10), 0);
    MXlookup::clearCache();
}
