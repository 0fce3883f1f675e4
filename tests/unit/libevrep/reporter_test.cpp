// The reporter and the events it is given.
#include "support/reporter.h"
#include "support/system_log.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

GW_EVENT make(std::int32_t discriminant, std::int32_t code = EVENT_TEST,
              const char* place = nullptr, const char* rule = nullptr) {
    return Reporter::createEvent(static_cast<GW_UNION_DISCRIMINANT>(discriminant), 3, 4,
                                 static_cast<ReportableEvent>(code), Reason_DiskFull, place, rule);
}

void report(std::int32_t code) {
    GW_EVENT one = make(UNDECIDED, code);
    Reporter::reportEvent(one);
}

TEST(Reporter, IsMadeOnDemandStampsEventsAndRefusesThemOnceShutDown) {
    EXPECT_EQ(Reporter::c_State, 0);
    strcpy(Reporter::c_szSubSystemName, "tester");
    for (const std::int32_t code : {0, -1, 32526, 1, 32525}) // the first three have no range
        report(code);
    EXPECT_EQ(reportersMade, 1);
    EXPECT_EQ(Reporter::c_State, 1);
    ASSERT_EQ(reported.size(), 2U);
    EXPECT_EQ(reported[0].m_EventID, 1);
    EXPECT_EQ(reported[1].m_EventID, EVENT_LAST);
    EXPECT_STREQ(reported[0].m_EventContext.getAnsiSubSystemName(""), "tester");
    EXPECT_STREQ(reported[0].m_EventContext.getAnsiSubSystemVersion("none"), "none");
    EXPECT_EQ(loggedLines.size(), 0U);
    Reporter::shutdown();
    EXPECT_EQ(reportersGone, 1);
    EXPECT_EQ(Reporter::c_State, 3);
    report(EVENT_TEST);
    EXPECT_EQ(linesWith("<1> Attempt to send event while reporting is shut down"), 1);
    for (int twice = 0; twice < 2; ++twice)
        Reporter::startup();
    EXPECT_EQ(reportersMade, 2);
    EXPECT_EQ(Reporter::c_State, 2);
    EXPECT_EQ(reported.size(), 2U);
    report(EVENT_TEST);
    EXPECT_EQ(reported.size(), 3U);
}

TEST(CreateEvent, FillsWhatTheDiscriminantAsksFor) {
    GW_EVENT expected;
    expected.m_EventID = EVENT_TEST_FAILED;
    expected.m_EventContext.m_Severity = 3;
    expected.m_intendedAudience = 4;
    expected.m_PropertyBag = CPropertyBag("Default Property Bag", 1);
    expected.m_PropertyBag.Set(EPROP_CODE_LOCATION, "unit:12");
    expected.m_iUnionDiscriminant = MANAGEMENT_CONTEXT;
    expected.m_ManagementContext.create().m_iReasonID = Reason_DiskFull;
    EXPECT_TRUE(make(MANAGEMENT_CONTEXT, EVENT_TEST_FAILED, "unit:12") == expected);
    EXPECT_EQ(make(MANAGEMENT_CONTEXT).getScanContext(), nullptr);
    const GW_EVENT scan = make(SCAN_CONTEXT, EVENT_TEST, nullptr, "rule");
    EXPECT_STREQ(scan.getScanContext()->getAnsiScanRule(""), "rule");
    EXPECT_EQ(scan.m_PropertyBag.Count(), 0U); // no code location
    EXPECT_STREQ(make(SCAN_CONTEXT).getScanContext()->getAnsiScanRule("none"), "none");
    EXPECT_EQ(make(STATS_CONTEXT).m_iUnionDiscriminant, STATS_CONTEXT);
    EXPECT_EQ(make(STATS_CONTEXT).getStatsContext(), nullptr);
    EXPECT_EQ(make(7).m_iUnionDiscriminant, UNDECIDED);
}

} // namespace
