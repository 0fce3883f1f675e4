#include "libevrep/EventContext.h"

namespace {

template<class Part>
auto contextOf(Part& part, GW_UNION_DISCRIMINANT present, GW_UNION_DISCRIMINANT wanted) {
    // The discriminant decides what an event holds; a part that was set before may still stand.
    return present == wanted ? part.get() : nullptr;
}

bool sameDetail(const GW_EVENT& a, const GW_EVENT& b) {
    switch (a.m_iUnionDiscriminant) {
    case MANAGEMENT_CONTEXT:
        return a.m_ManagementContext == b.m_ManagementContext;
    case SCAN_CONTEXT:
        return a.m_ScanContext == b.m_ScanContext;
    case STATS_CONTEXT:
        return a.m_StatsContext == b.m_StatsContext;
    case UNDECIDED:
        break;
    }
    return true;
}

} // namespace

const GW_MANAGEMENT_CONTEXT* GW_EVENT::getManagementContext() const noexcept {
    return contextOf(m_ManagementContext, m_iUnionDiscriminant, MANAGEMENT_CONTEXT);
}

GW_MANAGEMENT_CONTEXT* GW_EVENT::getManagementContext() noexcept {
    return contextOf(m_ManagementContext, m_iUnionDiscriminant, MANAGEMENT_CONTEXT);
}

const GW_SCAN_CONTEXT* GW_EVENT::getScanContext() const noexcept {
    return contextOf(m_ScanContext, m_iUnionDiscriminant, SCAN_CONTEXT);
}

GW_SCAN_CONTEXT* GW_EVENT::getScanContext() noexcept {
    return contextOf(m_ScanContext, m_iUnionDiscriminant, SCAN_CONTEXT);
}

const GW_STATS_CONTEXT* GW_EVENT::getStatsContext() const noexcept {
    return contextOf(m_StatsContext, m_iUnionDiscriminant, STATS_CONTEXT);
}

GW_STATS_CONTEXT* GW_EVENT::getStatsContext() noexcept {
    return contextOf(m_StatsContext, m_iUnionDiscriminant, STATS_CONTEXT);
}

bool GW_EVENT::operator==(const GW_EVENT& other) const {
    return m_iStructVersion == other.m_iStructVersion && m_EventID == other.m_EventID &&
           m_intendedAudience == other.m_intendedAudience &&
           m_CommonContext == other.m_CommonContext && m_EventContext == other.m_EventContext &&
           m_PropertyBag == other.m_PropertyBag &&
           m_iUnionDiscriminant == other.m_iUnionDiscriminant && sameDetail(*this, other);
}
