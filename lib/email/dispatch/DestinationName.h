// What the conversations of a run are counted by: the place that mail for an address goes to first.
#pragma once

#include <string>
#include <string_view>

class EmailAddr;
class Recipients;

namespace Dispatch {

inline constexpr std::string_view kReturnPrefix = "return to ";
inline constexpr std::size_t kMaxDestination = 300; // characters

// The domain in lower case, or the first relay of the table's line for it: "relay 192.0.2.1", so
// that all the domains behind one relay count as one; "local" for a direct send. Empty for an
// address without domain.
[[nodiscard]] std::string destinationOf(const EmailAddr& recipient);

// That of a return mail about an overdue message: it goes to the sender.
[[nodiscard]] std::string returnDestination(const char* sender);

// True for what is counted without a server of its own in sight: return mail, and messages that
// lead nowhere.
[[nodiscard]] bool isLocal(std::string_view destination) noexcept;

// True when somebody on the list is not for the destination of the first.
[[nodiscard]] bool severalDestinations(const Recipients& recipients);

} // namespace Dispatch
