// A return mail that programs read as well as people (RFC 6522, RFC 3464): multipart/report with
// the gateway's words, a delivery status for each recipient, and the message or its header.
//
// Words of servers and addresses of messages stand in it, both hostile: whatever is not printable
// ASCII becomes a question mark in the status part, and no line there grows over 998 bytes.
#pragma once

#include "email/base/IPaddress.h"
#include "email/base/SMTPcode.h"
#include "email/base/Utils.h"

#include <iosfwd>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace Email {

// What became of one recipient.
struct FailedRecipient {
    std::string_view address; // in angle brackets
    SMTPcode code = IDS_NO_REASON;
    std::string_view reply{}; // the server's last words, its number in front; empty: it said none
    std::optional<IPaddress> server{}; // the last server that was tried
};

// What a return mail tells beside its recipients.
struct ReturnedMessage {
    std::string_view sender;      // envelope sender, in angle brackets: who gets the return mail
    std::string_view gatewayName; // this host
    std::string_view author; // "From:" when it is an address, else the gateway's own stands there
    DateTime arrival;        // first attempt; DateTime(0): not known
    int maxLines = 0;        // most lines of the text that are returned
};

// The status code of RFC 3463 for a recipient that is given up: the server's own when its reply
// holds one of the same class, else one that follows from the code. A recipient whose trouble might
// still have passed ran out of time.
[[nodiscard]] std::string statusOf(SMTPcode code, std::string_view reply);

// The whole return mail, lines ended by single line feeds. The text is returned whole as
// message/rfc822 when it has at most `maxLines` lines, else only its header, cut at that many
// lines, as text/rfc822-headers; with a `maxLines` of 0 or less not at all.
[[nodiscard]] std::string deliveryStatusMail(const ReturnedMessage& message,
                                             std::span<const FailedRecipient> failed,
                                             std::istream& text);

} // namespace Email
