// What is known of the latest attempt on a recipient: with which server, how far the conversation
// came and what the server said. The SMTP client keeps it for the conversation at hand; a recipient
// whose fate it decided takes it along, so that its log line is enough by itself.
#pragma once

#include "email/base/IPaddress.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace Email {

enum class Stage : std::uint8_t {
    None,
    Connect,
    Greeting,
    Helo,
    Mail,
    Rcpt,
    Data,
    Body,
    Dot,
    Auth
};

// "connect", "greeting", "HELO", "MAIL", "RCPT", "DATA", "body", "dot" or "AUTH"; nothing for None.
[[nodiscard]] std::string_view stageName(Stage stage) noexcept;

// A system error as log lines show it: its number and its text in parentheses. The second form has
// a text of its own; number 0 then stands for something that is no system error.
[[nodiscard]] std::string errorText(int error);
[[nodiscard]] std::string errorText(int error, std::string_view text);

// The same for a time-out: "62 (no answer in 30 s)".
[[nodiscard]] std::string noAnswer(int error, long seconds);

// The texts are as they came from outside; they are escaped where they are written out.
struct Attempt {
    std::optional<IPaddress> server{}; // the last one tried; 0.0.0.0 is a server like any other
    Stage stage = Stage::None;         // how far it came: the step that was decisive
    std::string error{};               // why the step broke off, as errorText() gives it
    std::string reply{};               // the last line of the server's reply to this step
    std::string tls{};                 // protocol and cipher; "no" where TLS was tried in vain
    std::string verified{};            // with TLS: "ca", "dane" or "no"
    std::string leftOut{};             // servers that were not tried, or that there were none

    // False while nothing is known that a line could tell.
    [[nodiscard]] bool known() const noexcept { return stage != Stage::None || !leftOut.empty(); }

    // The next server of the same recipient; what the one before said is forgotten.
    void tryServer(IPaddress address);
    // The next step with the same server; what was said to the one before is forgotten.
    void begin(Stage step);
    // A server is passed over: it is on the blacklist.
    void passOver(IPaddress address);
    // The search found no server, for the reason given (one word, or nothing); no change when it is
    // known already, or when some were passed over.
    void noneFound(std::string_view why);
};

} // namespace Email
