#include "email/deliveryEvents.h"
#include "engine_support.h"

#include <gtest/gtest.h>

namespace {

eventId id(int number) {
    return static_cast<eventId>(number);
}

// Sums taken from the published table, not from the code's.
TEST(EventTable, HoldsEveryNumberOnce) {
    int reasons = 0;
    int kinds = 0;
    for (int number = 101; number <= 128; ++number) {
        EXPECT_EQ(lookupSEvent(id(number)).event, number);
        reasons += lookupSEvent(id(number)).reason * number;
        kinds += lookupSEvent(id(number)).kind * number;
    }
    EXPECT_EQ(reasons, 30429);
    EXPECT_EQ(kinds, 6389);
    for (const int number : {100, 99, 0, -1, 129, 32525}) {
        EXPECT_EQ(lookupSEvent(id(number)).event, 100) << number;
        EXPECT_EQ(lookupSEvent(id(number)).kind, 1) << number;
    }
}

struct KindCase {
    std::int32_t kind;
    std::int32_t* mode; // null: always wanted
    std::int32_t category;
    std::uint32_t severity;
};
TEST(EventKinds, FollowTheirModesAndMarks) {
    const ScratchSpool spool;
    for (const auto& [kind, mode, category, severity] :
         {KindCase{0, &DetailMode, 8, 2}, KindCase{1, &ErrorMode, 64, 1},
          KindCase{2, &ErrorMode, 32, 2}, KindCase{3, &DebugMode, 1, 2},
          KindCase{4, nullptr, 64, 2}}) {
        for (std::int32_t* each : {&DetailMode, &ErrorMode, &DebugMode}) {
            *each = each == mode ? 2 : 0;
        }
        EXPECT_TRUE(Email::kindWanted(kind));
        DetailMode = ErrorMode = DebugMode = 0;
        EXPECT_EQ(Email::kindWanted(kind), mode == nullptr);
        const GW_EVENT event = Email::deliveryEvent({101, 22, kind}, {});
        EXPECT_EQ(event.m_intendedAudience, category);
        EXPECT_EQ(event.m_EventContext.m_Severity, severity);
    }
}

// The bag as "key=value" in key order.
std::string bagOf(const GW_EVENT& event) {
    std::string text;
    for (std::uint32_t i = 0; i < event.m_PropertyBag.Count(); ++i) {
        const auto* value = event.m_PropertyBag.GetElementNumber(i);
        text += std::to_string(value->m_nIndex) + "=" + static_cast<std::string>(*value) +
                (value->GetType() == ST_INT ? "i " : " ");
    }
    return text;
}

TEST(EventRecord, HoldsOnlyWhatIsGiven) {
    const SEvent& row = lookupSEvent(EV_DEFERRED);
    EXPECT_EQ(bagOf(Email::deliveryEvent(row, {.messageSize = 0})), "");
    const GW_EVENT event = Email::deliveryEvent(row, {.messageSize = 12,
                                                      .server = IPaddress(0x0100007FU),
                                                      .serverName = "host",
                                                      .messageName = "/q/m1",
                                                      .sender = "<s@a.test>",
                                                      .text = "",
                                                      .value = -1});
    EXPECT_EQ(bagOf(event), "4=host 7=127.0.0.1 12=/q/m1 13=-1i 17=12i 19=<s@a.test> 20= ");
    EXPECT_EQ(event.m_EventID, 103);
    EXPECT_EQ(event.m_iStructVersion, 0);
    EXPECT_EQ(event.m_PropertyBag.Identifier(), "Default Property Bag");
    EXPECT_EQ(event.getManagementContext()->m_iReasonID, Reason_Null);
}

TEST(LogEvent, NoneDoesNothingAndClosedModesBuildNothing) {
    const ScratchSpool spool;
    ListSender engine;
    engine.logEvent(EV_NONE, "x", 1);
    DetailMode = 0;
    engine.logEvent(EV_DELIVERED, "<x@a.test>", 0);
    engine.logEvent(EV_CONNECTED, nullptr, 0);
    EXPECT_TRUE(reported.empty());
    EXPECT_TRUE(loggedLines.empty());
    engine.logEvent(id(500), "x", 7);
    ASSERT_EQ(reported.size(), 1U);
    EXPECT_EQ(reported[0].m_EventID, 100);
    DebugMode = 1;
    engine.logEvent(EV_CONNECTED, nullptr, 0);
    EXPECT_EQ(loggedLines.back(), "<31> connected");
}

} // namespace
