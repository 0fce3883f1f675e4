#include "email/MailList.h"

#include <gtest/gtest.h>

#include <array>
#include <numeric>
#include <string>

namespace {

constexpr int kLong = 400'000; // deep enough to end a stack that recurses

// "a450 b550 ": the first character inside the brackets, and the code.
std::string text(const MailList& list) {
    std::string text;
    for (const EmailAddr* record = list.first(); record; record = record->next.get()) {
        text += record->text()[1] + std::to_string(record->reason) + ' ';
    }
    return text;
}

// The first pair becomes the head.
void fill(MailList& list, std::initializer_list<std::pair<const char*, int>> records) {
    for (auto it = std::rbegin(records); it != std::rend(records); ++it) {
        list.Add(it->first, static_cast<SMTPcode>(it->second));
    }
}

TEST(MailList, DefersWhatMayStillSucceed) {
    for (const int code : {499, -1, 0, 250, 1001, 1005, 1006, -2147483647}) {
        EXPECT_TRUE(MailList::deferCode(code)) << code;
    }
    for (const int code : {500, 1000, 1002, 1003, 1004, 1007, 2147483647}) {
        EXPECT_FALSE(MailList::deferCode(code)) << code;
    }
}

TEST(MailList, AddsAtTheHeadAndTakesFromIt) {
    MailList list;
    list.Add("first", IDS_NO_REASON);
    EXPECT_TRUE(list.one());
    list.Add(static_cast<const char*>(nullptr), IDS_RTS450);
    list.Add(std::unique_ptr<EmailAddr>(), IDS_RTS450);
    list.Add(std::make_unique<EmailAddr>("own", nullptr, IDS_RTS550), IDS_NO_REASON);
    list.Add(std::make_unique<EmailAddr>("set", nullptr, IDS_RTS550), IDS_RTS451);
    EXPECT_EQ(text(list), "s451 o550 f-1 ");
    EXPECT_FALSE(list.one());
    EXPECT_TRUE(list.ReasonPresent(IDS_NO_REASON));
    EXPECT_FALSE(list.ReasonPresent(IDS_RTS421));
    std::array<char, EmailAddr::kTextSize> buf{};
    SMTPcode code = IDS_RTS421;
    EXPECT_TRUE(list.Remove(buf.data(), &code) && code == IDS_RTS451);
    EXPECT_STREQ(list.Remove()->text(), "<own>");
    list.Destroy();
    EXPECT_FALSE(list.Remove(buf.data(), &code));
    EXPECT_STREQ(buf.data(), "<set>");
    EXPECT_EQ(list.Remove(), nullptr);
}

TEST(MailList, CopiesAreReversedAndMovedChainsKeepTheirOrder) {
    MailList other;
    fill(other, {{"a", 450}, {"b", 550}});
    MailList list;
    fill(list, {{"c", 451}});
    list.Add(other, false, IDS_NO_REASON);
    EXPECT_EQ(text(list), "b550 a450 c451 ");
    list.Add(other, true, COMMS_FAILED);
    EXPECT_EQ(text(list), "a1001 b1001 b550 a450 c451 ");
    EXPECT_TRUE(other.IsEmpty());
    fill(other, {{"d", 1}});
    other = list;
    EXPECT_EQ(text(other), text(list));
    MailList empty;
    other.Add(empty, true, IDS_RTS450);
    other.Add(empty, false, IDS_RTS450);
    EXPECT_EQ(text(other), text(list));
}

TEST(MailList, ExtractsTheDeferredInOrder) {
    MailList failed;
    fill(failed, {{"a", 450}, {"b", 550}, {"c", 1001}, {"d", 1004}});
    MailList list;
    fill(list, {{"e", 554}});
    list.ExtractDeferred(failed);
    EXPECT_EQ(text(list), "a450 c1001 e554 ");
    EXPECT_EQ(text(failed), "b550 d1004 ");
}

TEST(MailList, AllNamesEndsBeforeTheFirstThatDoesNotFit) {
    std::array<char, EmailAddr::kTextSize + 1> buf;
    const auto names = [&](std::initializer_list<std::size_t> inside) {
        MailList list;
        for (auto it = std::rbegin(inside); it != std::rend(inside); ++it) {
            list.Add(std::string(*it, 'x').c_str(), IDS_NO_REASON);
        }
        buf.fill('#');
        list.AllNames(buf.data());
        EXPECT_EQ(buf.back(), '#');
        return std::string(buf.data());
    };
    EXPECT_EQ(names({}), "");
    EXPECT_EQ(names({1, 2}), "<x> <xx>");
    EXPECT_EQ(names({2046, 1}).size(), 2048U);
    EXPECT_EQ(names({2042, 1, 1}).size(), 2048U);
    EXPECT_EQ(names({2043, 1}).size(), 2045U);
    EXPECT_EQ(names({1000, 2000, 1}).size(), 1002U);
}

TEST(MailList, LongListsNeedNoStack) {
    MailList list;
    for (int i = 0; i < kLong; ++i) {
        list.Add("a@b.example", i % 2 == 0 ? IDS_RTS450 : IDS_RTS550);
    }
    MailList copy;
    copy = list;
    MailList deferred;
    deferred.ExtractDeferred(copy);
    deferred.Add(copy, true, IDS_NO_REASON);
    int count = 0;
    for (const EmailAddr* record = deferred.first(); record; record = record->next.get()) {
        ++count;
    }
    EXPECT_EQ(count, kLong);
}

// Literal domains need no name server.
TEST(MailList, GathersForOneServerAskingEachRecordOnce) {
    const auto gathered = [](MailList& list, const char* literal) {
        IPaddressList server;
        HostList::hostLookup(literal, server, 1, false);
        MailList::Gathering gathering(list, server.addr(0));
        MailList out;
        while (auto record = gathering.next()) {
            out.Add(std::move(record), IDS_NO_REASON);
        }
        EXPECT_EQ(list.Remove(server.addr(0)), nullptr);
        return text(out);
    };
    MailList list;
    fill(list,
         {{"a@[198.51.100.1]", 1}, {"b@[198.51.100.2]", 2}, {"c", 3}, {"d@[198.51.100.1]", 4}});
    EXPECT_EQ(gathered(list, "198.51.100.1"), "d4 a1 ");
    EXPECT_EQ(gathered(list, "198.51.100.3"), "");
    EXPECT_EQ(text(list), "b2 c3 ");
    EXPECT_EQ(gathered(list, "198.51.100.2"), "b2 ");
}

} // namespace
