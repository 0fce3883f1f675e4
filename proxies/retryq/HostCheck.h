// What this host itself contributes to mail that is refused, late or lost: its name, /etc/hosts and
// the name service.
#pragma once

#include "retryq/Settings.h"

#include <iosfwd>
#include <string_view>
#include <vector>

namespace Retryq {

// Asks the name service for this host's own name. Needs the settings loaded.
[[nodiscard]] std::vector<Finding> checkHost();

// True when a line of a text in the form of hosts(5) has the name, as canonical name or alias,
// whatever its case.
[[nodiscard]] bool namesHost(std::istream& hosts, std::string_view name);

} // namespace Retryq
