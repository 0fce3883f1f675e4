// Events of every shape from a reproducible source, the same on every host.
#pragma once

#include "libevrep/EventContext.h"

#include <random>

using Random = std::mt19937;

[[nodiscard]] std::uint32_t below(Random& random, std::uint32_t limit);
[[nodiscard]] GW_EVENT randomEvent(Random& random);
