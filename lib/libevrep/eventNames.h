// Names of the numbers in event records, for those who read them. Every function gives an empty
// text for a number without a name.
#pragma once

#include <cstdint>
#include <string_view>

// The enumerator's name.
[[nodiscard]] std::string_view eventName(std::int32_t code) noexcept;
[[nodiscard]] std::string_view reasonName(std::int32_t reason) noexcept;
[[nodiscard]] std::string_view propertyName(std::int32_t key) noexcept;
[[nodiscard]] std::string_view protocolName(std::int32_t protocol) noexcept;
[[nodiscard]] std::string_view taskName(std::int32_t task) noexcept;

// What the gateway's programs mean by the severities that they give: 1 a failure of the gateway's
// own work, 2 ordinary news, 32 a failed internal check.
[[nodiscard]] std::string_view severityName(std::uint32_t severity) noexcept;

// The system log's word for a priority, as in <syslog.h>.
[[nodiscard]] std::string_view priorityName(std::int32_t priority) noexcept;
