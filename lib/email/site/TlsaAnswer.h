// TLSA records (RFC 6698): what a domain's name service says of a server's certificate.
#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace Email {

inline constexpr std::size_t kMostTlsa = 32; // of one answer that are looked at

// The data of each TLSA record of the answer as it stands on the wire: a byte each for usage,
// selector and matching type, then what is to be matched. Nothing when the answer is damaged.
[[nodiscard]] std::optional<std::vector<std::string>>
readTlsa(std::span<const unsigned char> message);

// True for a record that mail can be held to (RFC 7672, 3.1): DANE-EE or DANE-TA, of the whole or
// the public key, in full or as a digest of the right length.
[[nodiscard]] bool isUsableTlsa(const std::string& record) noexcept;

// "3 1 1 0123456789abcdef..." for an administrator to compare.
[[nodiscard]] std::string tlsaText(const std::string& record);

} // namespace Email
