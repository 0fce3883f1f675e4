// What a dispatcher decides without processes: whose turn it is, how many conversations a server
// gets, what is dead, and which records it believes.
#include "email/dispatch/DestinationName.h"
#include "email/dispatch/Destinations.h"
#include "email/dispatch/DueWindow.h"
#include "email/dispatch/WorkerChannel.h"

#include <gtest/gtest.h>

#include <sstream>

using namespace Dispatch;

namespace {

DueMessage message(const std::string& leaf, const std::string& destination, int firstTry,
                   bool otherWork = false) {
    return {leaf, destination, firstTry, otherWork};
}

TEST(DueWindowTest, GoesRoundTheDestinationsAndTakesTheOldestOfEach) {
    DueWindow window(7);
    for (const auto& one :
         {message("a3", "a", 30), message("a1", "a", 10), message("b1", "b", 5),
          message("c1", "c", 1), message("a2", "a", 20), message("c2", "c", 2, true)}) {
        window.add(one);
    }
    EXPECT_FALSE(window.full());
    window.add(message("c3", "c", 3));
    EXPECT_TRUE(window.full());
    std::string order;
    const auto takeAll = [&](const std::string& but) {
        while (const auto next = window.take([&](const auto& name) { return name != but; })) {
            order += next->leaf + " ";
        }
    };
    takeAll("c");
    EXPECT_EQ(order, "a1 b1 a2 a3 ");
    EXPECT_EQ(window.drop("c"), 2U); // the one with other work stays
    EXPECT_EQ(window.drop("a"), 0U);
    takeAll("");
    EXPECT_EQ(order, "a1 b1 a2 a3 c2 ");
    EXPECT_TRUE(window.empty());
}

// Plays steps like "begin 1 a", "connected 1 s" on conversations 1 to 9; letters name destinations
// and servers. "may a 3": so many more may begin there, which is found out by beginning them.
class DestinationsTest : public testing::Test {
protected:
    void play(const std::string& script) {
        std::istringstream lines(script);
        for (std::string line; std::getline(lines, line, ';');) {
            SCOPED_TRACE(line);
            step(line);
        }
    }

private:
    void step(const std::string& line) {
        std::istringstream words(line);
        std::string what;
        std::string name;
        int number = 0;
        words >> what;
        if (what == "at") {
            words >> now_;
            return;
        }
        if (what == "may" || what == "dead") {
            words >> name >> number;
            EXPECT_EQ(what == "may" ? room(name) : int{places_.isDead(name, now_)}, number);
            return;
        }
        words >> number >> name;
        auto& talk = talks_.at(static_cast<std::size_t>(number));
        const IPaddress server(name.empty() ? 0 : static_cast<std::uint32_t>(name[0]));
        if (what == "begin") {
            ASSERT_TRUE(places_.mayBegin(name, now_));
            talk = places_.begin(name, now_);
            talk.searched = true;
        } else if (what == "connected") {
            places_.connected(talk, server);
        } else if (what == "failed" || what == "crowded") {
            EXPECT_EQ(places_.failed(talk, server, now_), what == "crowded");
        } else if (what == "lost") {
            places_.lost(talk, name);
        } else {
            places_.end(talk, now_);
        }
    }
    int room(const std::string& name) {
        std::vector<Destinations::Talk> begun;
        while (places_.mayBegin(name, now_) && begun.size() < 99) {
            begun.push_back(places_.begin(name, now_));
        }
        for (auto& talk : begun) {
            places_.end(talk, now_);
        }
        return static_cast<int>(begun.size());
    }

    Destinations places_{5, 180};
    std::array<Destinations::Talk, 10> talks_;
    std::int64_t now_ = 1000;
};

TEST_F(DestinationsTest, GrowWithEachSuccessUpToTheLimit) {
    play("may a 1;begin 1 a;may a 0;connected 1 s;may a 1;end 1;may a 3;"
         "begin 1 a;connected 1 s;end 1;begin 1 a;connected 1 s;end 1;may a 5;"
         "begin 1 a;connected 1 s;end 1;may a 5;dead a 0");
}

TEST_F(DestinationsTest, ShareTheLimitOfAServer) {
    play("begin 1 a;connected 1 s;begin 2 b;connected 2 s;may a 0;may b 0;end 2;may a 1;may b 2;"
         "begin 3 b;connected 3 other;may a 1;may b 1");
}

TEST_F(DestinationsTest, HalveWhenAConnectionIsLostOrTooManyForTheServer) {
    play(
        "begin 1 a;connected 1 s;end 1;begin 1 a;connected 1 s;end 1;begin 1 a;connected 1 s;end 1;"
        "may a 5;begin 1 a;connected 1 s;lost 1 a;lost 1 a;end 1;may a 2;"
        "begin 1 a;connected 1 s;begin 2 a;crowded 2 s;end 2;may a 0;dead a 0;end 1;may a 2");
}

TEST_F(DestinationsTest, AreDeadForAWhileWhenNoServerAnswers) {
    play("begin 1 a;failed 1 s;end 1;dead a 1;may a 5;at 1179;dead a 1;at 1180;dead a 0;may a 1");
    play("begin 1 b;end 1;dead b 0;begin 1 b;at 1182;end 1;dead b 1"); // a search that took long
    play(
        "begin 1 c;connected 1 s;end 1;begin 1 c;failed 1 s;end 1;dead c 1;begin 1 c;connected 1 s;"
        "dead c 0");
}

TEST(DeadServers, AreToldOnceToEachWhoAsksWhileTheyAreDead) {
    Destinations places(5, 180);
    auto talk = places.begin("a", 0);
    for (std::uint32_t server = 1; server <= 3; ++server) {
        places.failed(talk, IPaddress(server), server);
    }
    std::uint64_t one = 0;
    std::uint64_t other = 0;
    EXPECT_EQ(places.deadSince(one, 2, 3).size(), 2U);
    EXPECT_EQ(places.deadSince(one, 2, 3), std::vector{IPaddress(3)});
    EXPECT_TRUE(places.deadSince(one, 2, 3).empty());
    EXPECT_EQ(places.deadSince(other, 9, 182), std::vector{IPaddress(3)});
}

TEST(Records, AreReadBackWholeAndRefusedWhenAnythingIsMissing) {
    const Order order{"m1", {IPaddress(1), IPaddress(0xfffffffe)}};
    const std::string down = encode(order);
    ASSERT_TRUE(decodeOrder(down));
    EXPECT_EQ(decodeOrder(down)->leaf, order.leaf);
    EXPECT_EQ(decodeOrder(down)->dead, order.dead);
    Email::RunCounts counts;
    counts.delivered = 3;
    counts.dropped = 9;
    const std::string up =
        encode(Report{Step::Done, IPaddress(7), -5, std::string(5000, 'd'), counts});
    ASSERT_TRUE(decodeReport(up));
    EXPECT_EQ(decodeReport(up)->value, -5);
    EXPECT_EQ(decodeReport(up)->counts.delivered + decodeReport(up)->counts.dropped, 12);
    EXPECT_EQ(decodeReport(up)->server, IPaddress(7));
    EXPECT_EQ(decodeReport(up)->text, std::string(Report::kMaxText, 'd'));
    for (std::size_t size = 0; size < std::max(down.size(), up.size()); ++size) {
        EXPECT_EQ(decodeOrder(down.substr(0, size)).has_value(), size >= down.size());
        EXPECT_FALSE(decodeReport(up.substr(0, size)));
    }
    EXPECT_FALSE(decodeOrder(down + "x"));
    EXPECT_FALSE(decodeReport(up + "x"));
    for (const char* leaf : {"", "../m", "a/b"}) {
        EXPECT_FALSE(decodeOrder(encode(Order{leaf, {}}))) << leaf;
    }
    EXPECT_FALSE(decodeOrder(encode(Order{std::string(256, 'm'), {}})));
    EXPECT_FALSE(decodeReport(encode(Report{static_cast<Step>(99), {}, 0, {}, {}})));
}

} // namespace
