// Whether a mail server must prove itself by TLSA records (RFC 7672), as "smtp-tls dane" asks.
//
// What binds is a chain of answers that the resolver validated (DnsAnswer.h): the domain's MX
// records name the host, the host's name has an address, the host publishes TLSA records for the
// port. Where a link is not validated, or there are no such records, there is nothing to hold the
// server to. Where an answer that could bind does not come, the server cannot be used now: who cuts
// off answers must not get mail in the clear. A domain's own name needs no MX record, a relay's
// stands in the rule table.
//
// Questions go through Resolver, each under its limits: at most one about the domain, two about the
// host, two about TLSA records. They are asked anew here, whatever found the server's address: its
// name must stand in the validated answer. Answers are used again for kDaneSeconds.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Email {

inline constexpr int kDaneSeconds = 60;

struct DaneServer {
    std::string domain; // whose exchanger the host is; empty for a relay of the rule table
    std::string host;   // its name, or its dotted address, which has no records
    int port = 0;
};

enum class DaneResult : std::uint8_t {
    NoRecords, // nothing that binds
    Unusable,  // records, but none of a kind that we can hold anybody to: TLS with anybody
    Usable,    // the server must match one of the records
    Failed,    // not to be found out now
};

struct DaneVerdict {
    DaneResult result = DaneResult::Failed;
    std::vector<std::string> records{}; // usable ones as on the wire (TlsaAnswer.h)
    std::vector<std::string> names{};   // that a certificate may name; the first holds the records
    std::string why{};                  // in words, where the server is not held to records
};

// May ask the name service: only while no server waits for us.
[[nodiscard]] DaneVerdict askDane(const DaneServer& server);

// What askDane() found out lately; asks nobody.
[[nodiscard]] std::optional<DaneVerdict> knownDane(const DaneServer& server);

} // namespace Email
