// Base64 (RFC 4648, 4), as SMTP's AUTH has it: padded, without blanks or line breaks.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace Email {

// Allocates once: nothing of a secret stays behind in memory that was given up.
[[nodiscard]] std::string toBase64(std::string_view bytes);

// Nothing for a text that is not of this form.
[[nodiscard]] std::optional<std::string> fromBase64(std::string_view text);

} // namespace Email
