#include "email/telling/deliveryEvents.h"

#include "libevrep/Reporter.h"

#include <algorithm>
#include <array>

namespace {

// The last row also stands for every number without a row.
constexpr std::array<SEvent, 29> kEvents{{
    {EV_SELF_SEND, Reason_Incompatible, 1},
    {EV_DELIVERED, Reason_Null, 0},
    {EV_DEFERRED, Reason_Null, 0},
    {EV_MOVE_FAILED, Reason_OpenError, 1},
    {EV_TEXT_OPEN_FAILED, Reason_OpenError, 1},
    {EV_TEXT_READ_FAILED, Reason_ReadError, 1},
    {EV_RMD_REWRITE_FAILED, Reason_WriteError, 1},
    {EV_RETURN_DELIVERED, Reason_Null, 0},
    {EV_RCPT_READ_FAILED, Reason_ReadError, 2},
    {EV_MX_START, Reason_Null, 3},
    {EV_MX_NO_ADDRESS, Reason_Unavailable, 3},
    {EV_MX_NO_DOMAIN, Reason_NotFound, 3},
    {EV_MX_NO_RECORD, Reason_NotFound, 3},
    {EV_MX_TEMPFAIL, Reason_Unavailable, 3},
    {EV_CONNECT_FAILED, Reason_Unavailable, 3},
    {EV_RELAY_FOUND, Reason_Null, 3},
    {EV_NO_GREETING, Reason_Unavailable, 3},
    {EV_CONNECTED, Reason_Null, 3},
    {EV_RELAYS_FAILED, Reason_Unknown, 3},
    {EV_CHOOSE_SERVER, Reason_Null, 3},
    {EV_DIRECT, Reason_Null, 3},
    {EV_MX_NONE_LEFT, Reason_Null, 3},
    {EV_OVERDUE, Reason_TimeOut, 3},
    {EV_BAD_DOMAIN, Reason_BadValue, 1},
    {EV_NULL_SENDER_DROP, Reason_Range, 2},
    {EV_126, Reason_WriteError, 1},
    {EV_127, Reason_OpenError, 1},
    {EV_COPY_FAILED, Reason_WriteError, 1},
    {EV_NONE, Reason_Unknown, 1},
}};

// How the records of one kind are marked.
struct Marks {
    std::uint32_t category; // stored as the intended audience
    std::uint32_t severity;
};

Marks marksOf(std::int32_t kind) noexcept {
    switch (kind) {
    case 0:
        return {8, 2};
    case 1:
        return {64, 1};
    case 2:
        return {32, 2};
    case 3:
        return {1, 2};
    default:
        return {64, 2};
    }
}

void setText(CPropertyBag& bag, PropEnum key, const char* text) {
    // An empty text would be an element that says nothing.
    if (text != nullptr && *text != '\0') {
        bag.Set(key, text);
    }
}

} // namespace

const SEvent& lookupSEvent(eventId event) noexcept {
    const auto* row =
        std::find_if(kEvents.begin(), kEvents.end(),
                     [event](const SEvent& candidate) { return candidate.event == event; });
    return row != kEvents.end() ? *row : kEvents.back();
}

namespace Email {

bool kindWanted(std::int32_t kind) noexcept {
    switch (kind) {
    case 0:
        return DetailMode != 0;
    case 1:
    case 2:
        return ErrorMode != 0;
    case 3:
        return DebugMode != 0;
    default:
        return true;
    }
}

GW_EVENT deliveryEvent(const SEvent& row, const EventDetails& details) {
    const Marks marks = marksOf(row.kind);
    GW_EVENT event = Reporter::createEvent(MANAGEMENT_CONTEXT, marks.severity, marks.category,
                                           static_cast<ReportableEvent>(row.event),
                                           static_cast<Reason>(row.reason), nullptr, nullptr);
    CPropertyBag& bag = event.m_PropertyBag;
    // What is not known is no element of the record.
    if (details.messageSize > 0) {
        bag.Set(EPROP_SIZE, details.messageSize);
    }
    if (!(details.server == IPaddress::null)) {
        std::array<char, IPaddress::kTextSize> address{};
        details.server.format(address.data());
        bag.Set(EPROP_IPADDRESS, address.data());
    }
    setText(bag, EPROP_SERVER, details.serverName);
    setText(bag, EPROP_IDENTITY, details.messageName);
    setText(bag, EPROP_SENDER, details.sender);
    bag.Set(EPROP_RECIPIENT, details.text);
    if (details.value != 0) {
        bag.Set(EPROP_ERROR_CODE, details.value);
    }
    return event;
}

} // namespace Email
