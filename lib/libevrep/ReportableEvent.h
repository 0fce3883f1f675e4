// The numbers that event records carry. They are shared by every program of the appliance and
// stand on the wire, so none may ever change its value.
#pragma once

#include <cstdint>

// What happened. The thousands give the family; within a family, values below x500 are successes
// or information, values from x500 up are errors. The same numbers are the message codes of the
// proxies' log records. Fixed at 32 bits: a number that has no name here (a delivery event of the
// mail library, or a newer program's code) is carried all the same.
enum ReportableEvent : std::int32_t {
#define REPORTABLE_EVENT(name, value) name = (value),
#include "libevrep/ReportableEvents.inc"
#undef REPORTABLE_EVENT
};

// Why, for events with a management context.
enum Reason : std::int32_t {
#define EVENT_REASON(name, value) name = (value),
#include "libevrep/Reasons.inc"
#undef EVENT_REASON
};

// Keys of the property bag.
enum PropEnum : std::int32_t {
#define EVENT_PROPERTY(name, value) name = (value),
#include "libevrep/Properties.inc"
#undef EVENT_PROPERTY
};

// Kinds of property values; the first four have a class and stand on the wire as type tags.
enum StorageType : std::int32_t {
    ST_UNKNOWN = 0,
    ST_INT = 1,
    ST_LONG = 2,
    ST_STRING = 3,
    ST_WSTRING = 4,
    ST_BLOB = 5,
    ST_UINT = 6,
    ST_MAX = 7,
};

// Protocol that a statistics context counts.
enum GW_PROTO : std::int32_t {
    GW_PROT_NULL = 0,
    GW_PROT_SMTP = 1,
    GW_PROT_HTTP = 2,
    GW_PROT_FTP = 3,
    GW_PROT_POP3 = 4,
    GW_PROT_MAX = 5,
};

// Which detail context an event carries.
enum GW_UNION_DISCRIMINANT : std::int32_t {
    UNDECIDED = 0,
    MANAGEMENT_CONTEXT = 1,
    SCAN_CONTEXT = 2,
    STATS_CONTEXT = 3,
};
