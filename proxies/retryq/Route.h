// Where mail for one address would go now, and why: the same decisions as those of the SMTP client,
// made with names looked up and no server contacted.
#pragma once

#include "retryq/Settings.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Retryq {

// One address that was found on the way.
struct Server {
    std::string name;                // as the rule table or DNS has it
    std::string address;             // dotted; empty when the name has none, or was not looked up
    std::optional<int> preference{}; // of a mail exchanger
    std::string leftOut{};           // why it is not tried; empty when it is
    std::string signsIn{};           // "USER at HOST:PORT"; empty when the relay wants nobody's
    std::string warning{};           // what is odd about a server that is tried
    std::string tls{};               // what "dane" comes to with it (RouteTls.h), else empty
};

// One attempt to find servers, in the order in which the client makes them.
struct Step {
    std::string name;      // "direct", "literal", "domain-relay", "exchangers", "own-address",
                           // "fallback-relay"
    std::int32_t line = 0; // of the rule table, 0 for none
    std::string text;      // what was found, in words
    std::vector<Server> servers{};

    // True when a server is left to try.
    [[nodiscard]] bool usable() const noexcept;
};

struct Route {
    std::string address; // as the gateway writes it into the envelope
    std::string domain;
    int port = 25;
    std::string tls{};         // the level that the domain gets; empty when none gets any
    std::string refused{};     // why no server is asked at all; empty when one is
    std::vector<Step> steps{}; // later ones count only when no server of the earlier ones answers
    std::string failing{};     // what becomes of the mail when none answers
};

// Needs the settings loaded (RuleTable::load).
[[nodiscard]] Route findRoute(const RuleTable& table, const std::string& address);

} // namespace Retryq
