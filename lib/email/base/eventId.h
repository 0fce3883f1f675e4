// Numbers of the delivery events that the transport and the engine hand to logEvent().
// deliveryEvents.h holds each one's reason and kind.
#pragma once

#include <cstdint>

enum eventId : std::int32_t {
    EV_NONE = 100, // no event; also ends the event table
    EV_SELF_SEND = 101,
    EV_DELIVERED = 102,
    EV_DEFERRED = 103,
    EV_MOVE_FAILED = 104,
    EV_TEXT_OPEN_FAILED = 105,
    EV_TEXT_READ_FAILED = 106,
    EV_RMD_REWRITE_FAILED = 107,
    EV_RETURN_DELIVERED = 108,
    EV_RCPT_READ_FAILED = 109,
    EV_MX_START = 110,
    EV_MX_NO_ADDRESS = 111,
    EV_MX_NO_DOMAIN = 112,
    EV_MX_NO_RECORD = 113,
    EV_MX_TEMPFAIL = 114,
    EV_CONNECT_FAILED = 115,
    EV_RELAY_FOUND = 116,
    EV_NO_GREETING = 117,
    EV_CONNECTED = 118,
    EV_RELAYS_FAILED = 119,
    EV_CHOOSE_SERVER = 120,
    EV_DIRECT = 121,
    EV_MX_NONE_LEFT = 122,
    EV_OVERDUE = 123,
    EV_BAD_DOMAIN = 124,
    EV_NULL_SENDER_DROP = 125,
    EV_126 = 126,
    EV_127 = 127,
    EV_COPY_FAILED = 128,
};
