// The delivery events: what each number means, whether the reporting modes want it, and the record
// that goes to the reporter. The lines that the same events write stand in DeliveryLog.h.
#pragma once

#include "email/base/IPaddress.h"
#include "email/base/eventId.h"

#include <cstdint>

struct GW_EVENT;

// One row of the event table.
struct SEvent {
    std::int32_t event;  // eventId
    std::int32_t reason; // Reason of the management context
    std::int32_t kind;   // 0 outcome, 1 error, 2 lost mail, 3 progress
};

// The event's row; the row of EV_NONE, which ends the table, for any other number.
[[nodiscard]] const SEvent& lookupSEvent(eventId event) noexcept;

namespace Email {

// True when the modes want records of this kind: outcomes with DetailMode, errors and lost mail
// with ErrorMode, progress with DebugMode, any other kind always.
[[nodiscard]] bool kindWanted(std::int32_t kind) noexcept;

// What an event is about. Values that are 0, null or empty are left out of the record.
struct EventDetails {
    std::int32_t messageSize = -1; // bytes; -1 until a body was sent
    IPaddress server{};
    const char* serverName = nullptr;
    const char* messageName = nullptr;
    const char* sender = nullptr;
    const char* text = nullptr; // a recipient, or several; an empty text is kept
    std::int32_t value = 0;     // a result code or an errno number
};

[[nodiscard]] GW_EVENT deliveryEvent(const SEvent& row, const EventDetails& details);

} // namespace Email
