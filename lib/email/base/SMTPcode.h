// Result code of one recipient's latest delivery attempt: a server's reply code (RFC 5321, 4.2)
// or one of the gateway's own results. A reply that is not listed here is kept as its number.
#pragma once

#include <cstdint>

enum SMTPcode : std::int32_t {
    IDS_NO_REASON = -1, // not tried yet
    SERVICE_READY = 220,
    ACTION_OKA = 250,
    START_DATA = 354,
    IDS_RTS421 = 421,
    NOT_AVAILABLE = 421,
    IDS_RTS450 = 450,
    IDS_RTS451 = 451,
    IDS_RTS452 = 452,
    IDS_RTS500 = 500,
    IDS_RTS501 = 501,
    IDS_RTS502 = 502,
    IDS_RTS503 = 503,
    IDS_RTS504 = 504,
    IDS_RTS550 = 550,
    IDS_RTS551 = 551,
    IDS_RTS552 = 552,
    IDS_RTS553 = 553,
    IDS_RTS554 = 554,
    // The gateway's own results, for failures without a reply.
    COMMS_FAILED = 1001,     // no server reached, or the conversation broke
    MXHOST_NOT_FOUND = 1002, // the domain does not exist or has no server
    BADHOSTNAME = 1003,      // the address has no domain
    SELFSEND = 1004,         // the mail would come back to this host
    DATASOURCEERROR = 1005,  // the message text cannot be read
    TIMEOUTEXPIRED = 1006,   // the deadline or the alarm has passed
    TAKES_NO_MAIL = 1007,    // the domain says that it takes no mail
};
