// A DNS answer (RFC 1035, 4.1) read whole: values in, values out.
//
// Answers are read with offsets that never pass the bytes received; no length, count or pointer in
// them is believed.
#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace Email {

struct DnsRecord {
    std::string owner; // without a trailing dot; empty for the root
    int type = 0;
    std::span<const unsigned char> data; // within the message
};

inline constexpr std::size_t kMostRecords = 1024; // of one answer that are looked at

// The records of the answer section that are of class IN, in message order. Nothing when a name in
// it cannot be expanded or a record is cut off: half an answer is none.
[[nodiscard]] std::optional<std::vector<DnsRecord>>
readAnswer(std::span<const unsigned char> message);

// Expands the name that begins `offset` bytes into the record's data and must end with it. Without
// its trailing dot; nothing when it is malformed.
[[nodiscard]] std::optional<std::string> nameIn(std::span<const unsigned char> message,
                                                const DnsRecord& record, std::size_t offset);

// True when the resolver says that it validated all of the answer (the AD bit of RFC 4035, 3.2.3).
// The system's resolver library passes that on only where /etc/resolv.conf trusts the name server
// ("options trust-ad"); otherwise it clears the bit.
[[nodiscard]] bool isValidated(std::span<const unsigned char> message) noexcept;

} // namespace Email
