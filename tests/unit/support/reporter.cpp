#include "reporter.h"

#include <iostream>

std::vector<GW_EVENT> reported;
int reportersMade = 0;
int reportersGone = 0;

std::string bagOf(const GW_EVENT& event) {
    std::string text;
    for (std::uint32_t i = 0; i < event.m_PropertyBag.Count(); ++i) {
        const auto* value = event.m_PropertyBag.GetElementNumber(i);
        text += std::to_string(value->m_nIndex) + "=" + static_cast<std::string>(*value) + " ";
    }
    return text;
}

std::unique_ptr<AbstractReporter> Reporter::makeInstance() {
    struct Collector : AbstractReporter {
        Collector() { ++reportersMade; }
        ~Collector() override { ++reportersGone; }
        void report(const GW_EVENT& event) override {
            reported.push_back(event);
            if (const auto* management = event.getManagementContext()) {
                std::cerr << event.m_EventID << ' ' << event.m_iStructVersion << ' '
                          << event.m_intendedAudience << ' ' << event.m_EventContext.m_Severity
                          << ' ' << management->m_iReasonID << ' ' << bagOf(event) << ".\n";
            }
        }
    };
    return std::make_unique<Collector>();
}
