// The grammar of an address as a client may write it in an envelope command (RFC 5321, 4.1.2,
// with the gateway's limits).
#pragma once

namespace Email {

// Accepts "local@domain" or a bracketed mailbox, the latter with a source route or, where
// `allowNull` is set, as the null address "<>". Returns the accepted address within `text`, or
// null. What stands behind the last ">" is cut off, and a source route is cut off by writing "<"
// over its colon. With `anyDomain` only the first character of a domain name is examined.
char* acceptedAddress(char* text, bool allowNull, bool anyDomain) noexcept;

} // namespace Email
