// Which messages a command is about.
#pragma once

#include "retryq/Queue.h"

#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

namespace Retryq {

// Conditions that a message must all meet, those about recipients with the same one of them; of
// several words for one condition any will do.
struct Filter {
    std::vector<std::string> domains;    // a recipient is in one of them
    std::vector<std::string> recipients; // patterns, as matches() takes them
    std::vector<std::string> senders;    // the same
    std::vector<std::int32_t> codes;     // a recipient had one of these results
    std::string state;                   // a state's name, or "held"; empty: any
    std::int64_t olderThan = std::numeric_limits<std::int64_t>::min();   // seconds
    std::int64_t youngerThan = std::numeric_limits<std::int64_t>::max(); // seconds

    [[nodiscard]] bool accepts(const Message& message, const Recipients& recipients,
                               std::time_t now) const;

    // True for a recipient that meets all that is asked of recipients: domain, address, code.
    [[nodiscard]] bool wants(const EmailAddr& recipient) const;
    // True when something is.
    [[nodiscard]] bool namesRecipients() const noexcept;

    // True when nothing was asked for.
    [[nodiscard]] bool empty() const noexcept;
};

// True when the address is the one asked for, case aside: with or without angle brackets, "*"
// standing for any text. "<>" is the null sender, which an empty sender line is, too.
[[nodiscard]] bool matches(std::string_view pattern, std::string_view address);

} // namespace Retryq
