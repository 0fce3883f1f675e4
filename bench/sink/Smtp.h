// The receiving side of one SMTP conversation, made to cost as little as possible: commands are
// told by their first letters, and of a body only the end is looked at.
#pragma once

#include <string>
#include <string_view>

struct Counters {
    unsigned long connections = 0;
    unsigned long atOnce = 0;   // the most that were open together
    unsigned long atServer = 0; // of these at one server
    unsigned long messages = 0;
    unsigned long healthy = 0; // of these at servers without a fault
    unsigned long recipients = 0;
    unsigned long refused = 0;
    unsigned long bytes = 0;
    unsigned long mxQuestions = 0;
    unsigned long addressQuestions = 0;
    unsigned long logLines = 0;
};

class Smtp {
public:
    static constexpr std::string_view kGreeting = "220 sink.bench.test ready\r\n";

    // Takes what came in and appends the replies to `out`. Recipients whose address begins with
    // "bad" are refused for good.
    void take(std::string_view bytes, std::string& out, Counters& counters);

    // Offers STARTTLS from now on.
    void offerTls() noexcept { offersTls_ = true; }
    // True when the client said STARTTLS: once `out` is sent, beginTls() starts anew within TLS.
    [[nodiscard]] bool wantsTls() const noexcept { return wantsTls_; }
    void beginTls() { *this = Smtp(); }

    // True when the client said QUIT: the connection closes once `out` is sent.
    [[nodiscard]] bool finished() const noexcept { return finished_; }

    // True between DATA and the end of the body.
    [[nodiscard]] bool inBody() const noexcept { return body_; }

private:
    void takeBody(std::string& out, Counters& counters);
    bool takeCommand(std::string& out, Counters& counters);
    void answer(std::string_view line, std::string& out, Counters& counters);

    std::string pending_; // unread commands, or the end of the body so far
    bool body_ = false;
    bool finished_ = false;
    bool offersTls_ = false;
    bool wantsTls_ = false;
};
