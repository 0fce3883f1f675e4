// The line reader and the writer over TLS, with a session whose every step is given.
#include "email/smtp/TlsChannel.h"
#include "email/smtp/TlsModule.h"

#include "support/peer.h"

#include "email/base/Alarm.h"
#include "email/smtp/ExtSocketClass.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <deque>

namespace {

using Email::TlsResult;

struct Step {
    TlsResult result;
    std::string bytes;
};

// Plays its steps; the last one stays.
struct Scripted final : Email::TlsSession {
    explicit Scripted(std::deque<Step> all) : steps(std::move(all)) {}
    Step next() {
        const Step step = steps.front();
        lost = step.result == TlsResult::Failed || step.result == TlsResult::Closed;
        if (steps.size() > 1) {
            steps.pop_front();
        }
        return step;
    }
    TlsResult handshake() noexcept override { return next().result; }
    TlsResult read(char* to, std::size_t room, std::size_t& done) noexcept override {
        const Step step = next();
        done = step.bytes.copy(to, room);
        return step.result;
    }
    TlsResult write(const char*, std::size_t size, std::size_t& done) noexcept override {
        done = std::min<std::size_t>(size, 3);
        return next().result;
    }
    void close() noexcept override {}
    [[nodiscard]] std::string protocol() const override { return "p"; }
    [[nodiscard]] Email::TlsProof proof() const noexcept override { return Email::TlsProof::None; }
    [[nodiscard]] std::string trouble() const override { return lost ? "bad" : ""; }
    std::deque<Step> steps;
    bool lost = false;
};

struct Protected : testing::Test, ExtSocketClass {
    Protected() { std::tie(theSocket, peer) = connectedPair(); }
    ~Protected() override { Email::Alarm::setExpiry(false); }
    Protected(const Protected&) = delete;
    Protected& operator=(const Protected&) = delete;

    std::unique_ptr<Email::TlsChannel> over(std::deque<Step> steps) {
        return std::make_unique<Email::TlsChannel>(std::make_unique<Scripted>(std::move(steps)),
                                                   theSocket);
    }
    // The next line, or the error.
    std::string line(long limitMs = 1000) {
        char buf[kReadBufferSize];
        int err = 0;
        const int n = ReadLine(buf, sizeof buf, limitMs, err);
        return err == 0 ? std::string(buf, static_cast<std::size_t>(n)) : std::to_string(err);
    }
    UniqueFd peer;
};

TEST_F(Protected, HandshakesEndByThemselvesOrWithTheTime) {
    using enum TlsResult;
    put(peer.get(), "x"); // always readable: the loop must not live on that
    const std::tuple<std::deque<Step>, long, const char*> cases[] = {
        {{{WantRead, ""}, {WantWrite, ""}, {Done, ""}}, 1000, ""},
        {{{WantRead, ""}, {Failed, ""}}, 1000, "bad"},
        {{{Closed, ""}}, 1000, "bad"},
        {{{WantRead, ""}}, 100, "time is up"},
        {{{WantWrite, ""}}, -1, "time is up"}};
    for (const auto& [steps, limit, trouble] : cases) {
        const auto channel = over(steps);
        EXPECT_EQ(channel->handshake(limit), *trouble == '\0');
        EXPECT_EQ(channel->trouble(), trouble);
    }
    Email::Alarm::setExpiry(true);
    EXPECT_FALSE(over({{WantRead, ""}})->handshake(60'000));
}

TEST_F(Protected, LinesAreReadAndEndsAreTold) {
    using enum TlsResult;
    put(peer.get(), "x");
    protect(over({{Done, "250 a\r\n25"},
                  {Done, "0 b\r\n"},
                  {WantWrite, ""},
                  {Done, "250 c\n"},
                  {Closed, ""}}));
    for (const char* expected : {"250 a", "250 b", "250 c"}) {
        EXPECT_EQ(line(), expected);
    }
    EXPECT_EQ(line(), std::to_string(ENODATA));
    protect(over({{Failed, ""}}));
    EXPECT_EQ(line(), std::to_string(EPROTO));
    protect(over({{WantRead, ""}}));
    EXPECT_EQ(line(100), std::to_string(ETIME));
}

TEST_F(Protected, WritesGoOnUntilAllIsSent) {
    using enum TlsResult;
    int err = 0;
    protect(over({{WantWrite, ""}, {Done, ""}}));
    EXPECT_EQ(WriteN("123456789", 9, 1000, err), 9); // three at a time
    EXPECT_EQ(err, 0);
    protect(over({{Done, ""}, {Failed, ""}}));
    EXPECT_EQ(WriteN("12345678", 8, 1000, err), 3);
    EXPECT_EQ(err, EPROTO);
    protect(over({{WantRead, ""}}));
    EXPECT_EQ(WriteN("x", 1, 50, err), 0);
}

TEST_F(Protected, WhatCameInTheClearIsThrownAway) {
    for (const auto& [text, discarded] :
         {std::pair{"220 go\r\n250 mine\r\n", 10}, {"220 go\r\n", 0}, {"220 go\n2", 1}}) {
        put(peer.get(), text);
        EXPECT_EQ(line(), "220 go");
        EXPECT_EQ(protect(over({{TlsResult::Done, "250 yours\n"}})), discarded);
        EXPECT_EQ(line(), "250 yours");
        protect(nullptr);
    }
}

TEST(TlsModule, IsThereOrSaysWhyNot) {
    std::string trouble;
    EXPECT_EQ(Email::tlsContext("/no/such/file", "", trouble), nullptr);
    EXPECT_NE(trouble, "");
    EXPECT_EQ(Email::tlsContext("", "", trouble), nullptr); // the first answer stays
}

} // namespace
