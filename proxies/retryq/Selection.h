// The messages that a command is to work on: by name, or by what the filter says.
#pragma once

#include "retryq/Commands.h"

#include <string>
#include <vector>

namespace Retryq {

// Those that the filter accepts; with names, of these only. A name may be the beginning of one
// message's name. False, with a line of the command's on standard error, when a name fits no
// message or several, or the spool cannot be opened; `leaves` has the others then.
[[nodiscard]] bool select(const Context& context, const char* command,
                          const std::vector<std::string>& names, const Filter& filter,
                          std::vector<std::string>& leaves);

} // namespace Retryq
