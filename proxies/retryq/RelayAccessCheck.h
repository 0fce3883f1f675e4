// Whether the relays can be signed in to that the rule table's "relay-access" names.
#pragma once

#include "retryq/Settings.h"

#include <string>
#include <vector>

namespace Retryq {

// Reads the file with the rights of `user` (empty: our own). Nothing to tell without that key.
// Needs the settings loaded (RuleTable::load).
[[nodiscard]] std::vector<Finding> checkRelayAccess(const RuleTable& table,
                                                    const std::string& user);

} // namespace Retryq
