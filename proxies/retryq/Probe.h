// Asks the servers of an address what they offer, and how far a message to it would come: greeting,
// EHLO, TLS and signing in as the rule table asks for them. No mail is sent.
#pragma once

#include "retryq/Settings.h"

#include <string>

namespace Retryq {

struct Probed {
    std::string server;   // dotted; empty when none was tried
    std::string offers;   // extensions, in the server's keywords
    std::string tls;      // protocol and cipher; empty in the clear
    std::string verified; // with TLS: "ca", "dane" or "no"
    std::string user;     // as whom it let us sign in; empty when that was not asked
    std::string trouble;  // what was in the way; empty when nothing was
    bool passes = false;  // a message could be offered to the server
};

// Needs the settings loaded (RuleTable::load); fills the relay tables. Lasts as long as a run's
// attempt on the address may.
[[nodiscard]] Probed probe(const RuleTable& table, const std::string& address);

} // namespace Retryq
