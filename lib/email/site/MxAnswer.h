// The mail exchangers of a domain by the rules of the Internet's own documents (RFC 5321, 5.1;
// RFC 7505), as "dns-rules rfc" asks for: values in, values out.
//
// Answers are read with offsets that never pass the bytes received; no length, count or pointer in
// them is believed.
#pragma once

#include "email/base/IPaddress.h"

#include <optional>
#include <random>
#include <span>
#include <string>
#include <vector>

namespace Email {

struct Exchanger {
    std::string name; // without a trailing dot; empty for the root, "."
    int preference = 0;
};

inline constexpr std::size_t kMostExchangers = 256; // of one answer that are looked at

// The MX records of the answer section, in message order. Nothing when a name in the message cannot
// be expanded or a record is cut off: half an answer is none.
[[nodiscard]] std::optional<std::vector<Exchanger>>
readExchangers(std::span<const unsigned char> message);

// True when the domain says that it takes no mail: one record, whose exchanger is the root.
[[nodiscard]] bool isNullMx(const std::vector<Exchanger>& exchangers) noexcept;

// Best first, equal preferences in an order of chance, without the root; then cut at this host: an
// exchanger named `hostName` (whatever its case), its equals and worse ones go.
void orderExchangers(std::vector<Exchanger>& exchangers, std::minstd_rand& chance,
                     const std::string& hostName);

// True for an address that cannot be another host's: 0/8, 127/8, or one of `own`.
[[nodiscard]] bool cannotBeForeign(IPaddress address, std::span<const IPaddress> own) noexcept;

} // namespace Email
