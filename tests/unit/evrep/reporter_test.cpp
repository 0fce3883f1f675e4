// The reporter and the events it is given.
#include "libevrep/Reporter.h"

#include <gtest/gtest.h>

#include <cstdarg>
#include <cstring>
#include <syslog.h>

namespace {

struct Seen {
    int made = 0;
    int destroyed = 0;
    std::vector<GW_EVENT> events;
    std::string logged;
} seen;

class Recorder : public AbstractReporter {
public:
    Recorder() { ++seen.made; }
    void report(const GW_EVENT& event) override { seen.events.push_back(event); }
    ~Recorder() override { ++seen.destroyed; }
};

GW_EVENT event(std::int32_t code) {
    return Reporter::createEvent(UNDECIDED, 1, 2, static_cast<ReportableEvent>(code), Reason_Null,
                                 nullptr, nullptr);
}

void report(std::int32_t code) {
    GW_EVENT one = event(code);
    Reporter::reportEvent(one);
}

class ReporterTest : public testing::Test {
protected:
    void SetUp() override {
        Reporter::c_pInstance.reset();
        Reporter::c_State = Reporter::notStarted;
        seen = Seen();
    }
    void TearDown() override { SetUp(); }
};

TEST_F(ReporterTest, IsMadeOnDemandAndStampsEvents) {
    strcpy(Reporter::c_szSubSystemName, "tester");
    report(EVENT_TEST);
    report(EVENT_TEST);
    EXPECT_EQ(seen.made, 1);
    EXPECT_EQ(Reporter::c_State, 1);
    ASSERT_EQ(seen.events.size(), 2U);
    EXPECT_STREQ(seen.events[0].m_EventContext.getAnsiSubSystemName(""), "tester");
    EXPECT_STREQ(seen.events[0].m_EventContext.getAnsiSubSystemVersion("none"), "none");
}

TEST_F(ReporterTest, DropsCodesOutsideTheRangeSilently) {
    for (const std::int32_t code : {0, -1, 32526, 1, 32525})
        report(code);
    ASSERT_EQ(seen.events.size(), 2U);
    EXPECT_EQ(seen.events[0].m_EventID, 1);
    EXPECT_EQ(seen.events[1].m_EventID, EVENT_LAST);
    EXPECT_EQ(seen.logged, "");
}

TEST_F(ReporterTest, RefusesEventsAfterShutdownUntilStarted) {
    Reporter::startup();
    Reporter::startup();
    EXPECT_EQ(seen.made, 1);
    EXPECT_EQ(Reporter::c_State, 2);
    Reporter::shutdown();
    EXPECT_EQ(seen.destroyed, 1);
    EXPECT_EQ(Reporter::c_State, 3);
    report(EVENT_TEST);
    EXPECT_TRUE(seen.events.empty());
    EXPECT_EQ(seen.logged, "1 Attempt to send event while reporting is shut down\n");
    Reporter::startup();
    report(EVENT_TEST);
    EXPECT_EQ(seen.events.size(), 1U);
}

TEST(CreateEvent, FillsWhatTheDiscriminantAsksFor) {
    const auto make = [](std::int32_t discriminant, const char* rule) {
        return Reporter::createEvent(static_cast<GW_UNION_DISCRIMINANT>(discriminant), 3, 4,
                                     EVENT_TEST_FAILED, Reason_DiskFull, "unit:12", rule);
    };
    const GW_EVENT management = make(MANAGEMENT_CONTEXT, nullptr);
    EXPECT_EQ(management.m_iStructVersion, 0);
    EXPECT_EQ(management.m_EventID, EVENT_TEST_FAILED);
    EXPECT_EQ(management.m_EventContext.m_Severity, 3U);
    EXPECT_EQ(management.m_intendedAudience, 4);
    EXPECT_EQ(management.m_PropertyBag.Identifier(), "Default Property Bag");
    EXPECT_EQ(management.m_PropertyBag.Version(), 1);
    EXPECT_EQ(management.getManagementContext()->m_iReasonID, Reason_DiskFull);
    EXPECT_EQ(management.getScanContext(), nullptr);
    std::string place;
    EXPECT_TRUE(management.m_PropertyBag.Get(EPROP_CODE_LOCATION, place));
    EXPECT_EQ(place, "unit:12");
    EXPECT_STREQ(make(SCAN_CONTEXT, "rule").getScanContext()->getAnsiScanRule(""), "rule");
    EXPECT_STREQ(make(SCAN_CONTEXT, nullptr).getScanContext()->getAnsiScanRule("none"), "none");
    EXPECT_EQ(make(STATS_CONTEXT, nullptr).m_iUnionDiscriminant, STATS_CONTEXT);
    EXPECT_EQ(make(STATS_CONTEXT, nullptr).getStatsContext(), nullptr);
    EXPECT_EQ(make(7, nullptr).m_iUnionDiscriminant, UNDECIDED);
    EXPECT_EQ(event(EVENT_TEST).m_PropertyBag.Count(), 0U); // no code location
}

TEST(Modes, StandAsTheProgramsExpectThemAtStart) {
    EXPECT_EQ(ReportingMode, 0);
    EXPECT_EQ(DetailMode, 1);
    EXPECT_EQ(ErrorMode, 1);
    EXPECT_EQ(DebugMode, 0);
}

} // namespace

std::unique_ptr<AbstractReporter> Reporter::makeInstance() {
    return std::make_unique<Recorder>();
}

// In the place of the C library's: what would have gone to the system log.
extern "C" void syslog(int priority, const char* format, ...) {
    char text[256];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    seen.logged += std::to_string(priority) + " " + text + "\n";
}
