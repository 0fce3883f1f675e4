#include "libevrep/Reporter.h"

#include <syslog.h>

std::int32_t ReportingMode = 0;
std::int32_t DetailMode = 1;
std::int32_t ErrorMode = 1;
std::int32_t DebugMode = 0;

constinit std::unique_ptr<AbstractReporter> Reporter::c_pInstance;
constinit std::mutex Reporter::instanceLock;
constinit Reporter::State Reporter::c_State = Reporter::notStarted;
constinit char Reporter::c_szSubSystemName[128] = {};
constinit char Reporter::c_szSubSystemVersion[128] = {};

void Reporter::startup() {
    const std::scoped_lock guard(instanceLock);
    if (c_pInstance)
        return;
    c_pInstance = makeInstance();
    c_State = started;
}

void Reporter::shutdown() {
    const std::scoped_lock guard(instanceLock);
    c_pInstance.reset();
    c_State = shutDown;
}

// False after shutdown().
bool Reporter::provideInstance() {
    const std::scoped_lock guard(instanceLock);
    if (c_pInstance)
        return true;
    if (c_State == shutDown)
        return false;
    c_pInstance = makeInstance();
    if (c_State != started)
        c_State = startedOnDemand;
    return true;
}

void Reporter::reportEvent(GW_EVENT& event) {
    if (!provideInstance()) {
        syslog(LOG_ALERT, "Attempt to send event while reporting is shut down");
        return;
    }
    if (event.m_EventID < 1 || event.m_EventID > EVENT_LAST)
        return;
    event.m_EventContext.setSubSystemName(c_szSubSystemName);
    event.m_EventContext.setSubSystemVersion(c_szSubSystemVersion);
    const std::scoped_lock guard(instanceLock);
    if (c_pInstance)
        c_pInstance->report(event);
}

GW_EVENT Reporter::createEvent(GW_UNION_DISCRIMINANT discriminant, std::uint32_t severity,
                               std::uint32_t audience, ReportableEvent event, Reason reason,
                               const char* codeLocation, const char* scanRule) {
    GW_EVENT result;
    result.m_EventID = event;
    result.m_intendedAudience = static_cast<std::int32_t>(audience);
    result.m_EventContext.m_Severity = severity;
    result.m_PropertyBag.Set(EPROP_CODE_LOCATION, codeLocation);
    if (discriminant == MANAGEMENT_CONTEXT)
        result.m_ManagementContext.create().m_iReasonID = reason;
    if (discriminant == SCAN_CONTEXT)
        result.m_ScanContext.create().setScanRule(scanRule);
    // Any other number names no part, which is what UNDECIDED says.
    if (discriminant >= MANAGEMENT_CONTEXT && discriminant <= STATS_CONTEXT)
        result.m_iUnionDiscriminant = discriminant;
    return result;
}
