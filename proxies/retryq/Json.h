// JSON output: one object a line, in ASCII: whatever else a name holds is escaped, so that nothing
// in the spool can steer a terminal. Bytes that are no UTF-8 become the replacement character.
#pragma once

#include "retryq/Queue.h"

#include <nlohmann/json.hpp>

#include <ostream>
#include <string>
#include <vector>

namespace Retryq {

using Json = nlohmann::ordered_json;

void writeJson(std::ostream& out, const Json& object);

// A recipient as it stands in the queue.
struct Recipient {
    std::string address;
    std::int32_t code; // the result of its latest attempt
};

[[nodiscard]] std::vector<Recipient> copyOf(const Recipients& recipients);

// What list and show say of a message.
[[nodiscard]] Json toJson(const Message& message, const std::vector<Recipient>& recipients,
                          std::time_t now);

} // namespace Retryq
