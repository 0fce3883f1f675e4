// JSON output: one object a line. Bytes that are no UTF-8 become the replacement character.
#pragma once

#include "retryq/Queue.h"

#include <nlohmann/json.hpp>

#include <ostream>

namespace Retryq {

using Json = nlohmann::ordered_json;

void writeJson(std::ostream& out, const Json& object);

// What list and show say of a message.
[[nodiscard]] Json toJson(const Message& message, std::time_t now);

} // namespace Retryq
