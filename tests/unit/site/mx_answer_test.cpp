// Exchangers by the rules of the Internet's own documents.
#include "email/site/MxAnswer.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <algorithm>
#include <set>

namespace {

using Email::Exchanger;
using Bytes = std::basic_string<unsigned char>;

Bytes operator""_b(const char* text, std::size_t size) {
    return {reinterpret_cast<const unsigned char*>(text), size};
}

Bytes record(int type, int klass, const Bytes& data) {
    const auto byte = [](std::size_t n) { return static_cast<unsigned char>(n); };
    return "\xc0\x0c"_b +
           Bytes{0, byte(static_cast<std::size_t>(type)), 0,
                 byte(static_cast<std::size_t>(klass))} +
           "\0\0\0\x3c"_b + Bytes{byte(data.size() >> 8), byte(data.size())} + data;
}

// A message about x.test with so many answer records.
std::optional<std::vector<Exchanger>> read(int count, const Bytes& records) {
    const Bytes message = "\0\7\x81\x80\0\1\0"_b + Bytes{static_cast<unsigned char>(count)} +
                          "\0\0\0\0\1x\4test\0\0\x0f\0\1"_b + records;
    return Email::readExchangers({message.data(), message.size()});
}

std::string told(const std::vector<Exchanger>& exchangers) {
    std::string out;
    for (const Exchanger& exchanger : exchangers) {
        out += std::to_string(exchanger.preference) + exchanger.name + ' ';
    }
    return out;
}

TEST(MxAnswer, HoldsWhatTheAnswerSectionSaysOrNothing) {
    const Bytes a = record(15, 1, "\0\x0a\1a\xc0\x0e"_b), b = record(15, 1, "\0\5\1B\0"_b),
                root = record(15, 1, "\0\0\0"_b), other = record(16, 1, "\3abc"_b),
                chaos = record(15, 3, "\0\1\1c\0"_b);
    const std::tuple<int, Bytes, const char*> good[] = {{2, a + b, "10a.test 5B "},
                                                        {1, a + b, "10a.test "},
                                                        {3, other + chaos + b, "5B "},
                                                        {1, root, "0 "},
                                                        {0, a, ""},
                                                        {2, root + b, "0 5B "}};
    for (const auto& [count, records, expected] : good) {
        const auto found = read(count, records);
        ASSERT_TRUE(found);
        EXPECT_EQ(told(*found), expected);
        EXPECT_EQ(Email::isNullMx(*found), records == root);
    }
    const std::pair<int, Bytes> bad[] = {{2, a},
                                         {1, a.substr(0, a.size() - 1)},
                                         {1, record(15, 1, "\0\1"_b)},
                                         {1, record(15, 1, "\0\1\1a\0more"_b)},
                                         {1, record(15, 1, "\0\1\1a"_b) + "\0"_b},
                                         {1, record(15, 1, "\0\1\xc0\xff"_b)},
                                         {1, record(16, 1, "abc"_b).substr(0, 13)}};
    for (const auto& [count, records] : bad) {
        EXPECT_FALSE(read(count, records));
    }
}

TEST(MxAnswer, OrdersByPreferenceMixesEqualsAndEndsAtThisHost) {
    const std::vector<Exchanger> all{{"", 1},         {"c", 20}, {"a", 10}, {"b", 10},
                                     {"Gw.Test", 20}, {"d", 5},  {"e", 30}};
    std::set<std::string> seen;
    for (unsigned seed = 1; seed < 50; ++seed) {
        std::minstd_rand chance(seed);
        auto exchangers = all;
        Email::orderExchangers(exchangers, chance, "gw.test");
        seen.insert(told(exchangers));
    }
    EXPECT_EQ(seen, (std::set<std::string>{"5d 10a 10b ", "5d 10b 10a "}));
    std::minstd_rand chance;
    auto exchangers = all;
    Email::orderExchangers(exchangers, chance, "");
    EXPECT_EQ(exchangers.size(), all.size() - 1); // without a name of our own nobody is this host
}

TEST(MxAnswer, SomeAddressesAreNobodyElses) {
    const std::vector<IPaddress> own{IPaddress(::inet_addr("192.0.2.7"))};
    const std::pair<const char*, bool> cases[] = {
        {"0.0.0.0", true},   {"0.1.2.3", true},    {"127.0.0.1", true},  {"127.9.9.9", true},
        {"192.0.2.7", true}, {"192.0.2.8", false}, {"1.0.0.127", false}, {"128.0.0.1", false}};
    for (const auto& [dotted, expected] : cases) {
        EXPECT_EQ(Email::cannotBeForeign(IPaddress(::inet_addr(dotted)), own), expected) << dotted;
    }
}

} // namespace
