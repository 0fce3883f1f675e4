// The gateway's texts: result codes in words, and the fixed lines of return mail.
#pragma once

#include "email/base/SMTPcode.h"

#include <cstdint>

enum resourceIds : std::int32_t {
    IDS_MAILSENDER_RETURNEDMAIL = 209,
    IDS_MAILSENDER_FAILEDRECIPIENTS = 210,
    IDS_MAILSENDER_RETURNEDMAILBODY = 211,
};

// The text of a code or resource. An unknown value's text lies in a static buffer, one per
// function, that the next such call overwrites.
const char* smtpString(SMTPcode code) noexcept;
const char* resourceString(resourceIds id) noexcept;
