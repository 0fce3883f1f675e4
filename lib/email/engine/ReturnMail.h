// The return mail: tells the sender of a message which recipients failed and why, and quotes the
// beginning of the message. Line ends are single line feeds.
#pragma once

#include "email/spool/MailList.h"

#include <array>
#include <iosfwd>
#include <string>

// Room for a reason and its terminator.
inline constexpr std::size_t kReasonSize = 201;

// Writes the code's text, cut to 200 characters, to `buf` (kReasonSize bytes).
void GetReasonStr(SMTPcode code, char* buf) noexcept;

namespace Email {

inline constexpr std::size_t kQuotedLineLimit = 1023; // bytes; longer lines are quoted in pieces

// True for the sender that nothing may be returned to (RFC 5321, 4.5.5): empty, or nothing but "<",
// ">" and blanks.
[[nodiscard]] bool isNullSender(const char* sender) noexcept;

// The whole return mail to `sender`: header, failed recipients in list order, and the quoted text.
[[nodiscard]] std::string returnMail(const char* sender, const MailList& failed,
                                     std::istream& text);

// Appends the first `maxLines` lines of `text`, from its beginning. A last line without line feed
// is left out, and so is whatever follows a read error.
void quoteText(std::string& out, std::istream& text, int maxLines);

} // namespace Email
