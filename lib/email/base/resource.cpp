#include "email/base/resource.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <span>

namespace {

struct Text {
    std::int32_t id;
    const char* text;
};

// "insufficent" is spelt so in every copy of this message.
constexpr std::array kCodeTexts{
    Text{IDS_RTS421, "Remote service not available, closing transmission channel. "
                     "[SMTP Error Code 421]"},
    Text{IDS_RTS450, "Requested mail action not taken: mailbox unavailable. "
                     "[SMTP Error Code 450]"},
    Text{IDS_RTS451, "Requested action aborted: local error in processing. [SMTP Error Code 451]"},
    Text{IDS_RTS452, "Requested action not taken: insufficent system storage. "
                     "[SMTP Error Code 452]"},
    Text{IDS_RTS500, "Syntax error, command unrecognized. [SMTP Error Code 500]"},
    Text{IDS_RTS501, "Syntax error in parameters or arguments. [SMTP Error Code 501]"},
    Text{IDS_RTS502, "Command not implemented. [SMTP Error Code 502]"},
    Text{IDS_RTS503, "Bad sequence of commands. [SMTP Error Code 503]"},
    Text{IDS_RTS504, "Command parameter not implemented. [SMTP Error Code 504]"},
    Text{IDS_RTS550, "Requested action not taken: mailbox unavailable. [SMTP Error Code 550]"},
    Text{IDS_RTS551, "User not local. [SMTP Error Code 551]"},
    Text{IDS_RTS552, "Requested mail action aborted: exceeded storage allocation. "
                     "[SMTP Error Code 552]"},
    Text{IDS_RTS553, "Requested action not taken: mailbox name not allowed. "
                     "[SMTP Error Code 553]"},
    Text{IDS_RTS554, "Transaction failed. [SMTP Error Code 554]"},
    Text{COMMS_FAILED, "Mail Server is down or unreachable."},
    Text{MXHOST_NOT_FOUND, "Host not found."},
    Text{BADHOSTNAME, "Malformed e-mail address"},
    Text{SELFSEND, "Attempt to send mail to self"},
    Text{DATASOURCEERROR, "Problem accessing internal buffer"},
    Text{TIMEOUTEXPIRED, "Timer expired"},
    Text{TAKES_NO_MAIL, "The domain accepts no mail"},
};

constexpr std::array kResourceTexts{
    Text{IDS_MAILSENDER_RETURNEDMAIL, "Returned Mail - Error During Delivery"},
    Text{IDS_MAILSENDER_FAILEDRECIPIENTS, "------ Failed Recipients ------"},
    Text{IDS_MAILSENDER_RETURNEDMAILBODY, "-------- Returned Mail --------"},
};

using UnknownText = std::array<char, 128>;

const char* find(std::span<const Text> table, std::int32_t id) noexcept {
    const auto row = std::ranges::find(table, id, &Text::id);
    return row == table.end() ? nullptr : row->text;
}

} // namespace

const char* smtpString(SMTPcode code) noexcept {
    static UnknownText unknown;
    const char* known = find(kCodeTexts, code);
    if (known != nullptr) {
        return known;
    }
    std::snprintf(unknown.data(), unknown.size(), "Unknown SMTP code %d", static_cast<int>(code));
    return unknown.data();
}

const char* resourceString(resourceIds id) noexcept {
    static UnknownText unknown;
    const char* known = find(kResourceTexts, id);
    if (known != nullptr) {
        return known;
    }
    std::snprintf(unknown.data(), unknown.size(), "Unknown resource string %d",
                  static_cast<int>(id));
    return unknown.data();
}
