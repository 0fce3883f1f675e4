#include "store_support.h"

#include "libevrep/Reporter.h"

#include <deque>
#include <iostream>
#include <numeric>
#include <set>
#include <time.h>

namespace {
class RecordingReporter : public AbstractReporter {
    void report(const GW_EVENT& event) override {
        std::cerr << event.m_EventID << ' ' << event.m_iStructVersion << ' '
                  << event.m_intendedAudience << ' ' << event.m_EventContext.m_Severity << ' '
                  << event.getManagementContext()->m_iReasonID;
        for (std::uint32_t i = 0; i < event.m_PropertyBag.Count(); ++i) {
            const auto* value = event.m_PropertyBag.GetElementNumber(i);
            std::cerr << ' ' << value->m_nIndex << '=' << static_cast<std::string>(*value);
        }
        std::cerr << " .\n";
    }
};
} // namespace

std::unique_ptr<AbstractReporter> Reporter::makeInstance() {
    return std::make_unique<RecordingReporter>();
}

std::string Scratch::state(const char* leaf) const {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(root_)) {
        names.insert(entry.path().filename().string() + ' ');
    }
    return std::accumulate(names.begin(), names.end(), std::string()) + read(leaf);
}

void setZone(const char* tz) {
    ::setenv("TZ", tz, 1);
    ::tzset();
}

std::string records(const MailList& list) {
    std::string text;
    for (const EmailAddr* record = list.first(); record; record = record->next.get()) {
        text += record->text() + (':' + std::to_string(record->reason)) + ' ';
    }
    return text;
}

cfgrec* table(const std::string& lines) {
    const Scratch dir;
    std::istringstream in(lines);
    std::string text;
    for (std::string line; std::getline(in, line);) {
        text += "*:" + line + '\n';
    }
    ::setenv("TAVORIX", "", 1);
    cfg_setpfile(dir.write("table", text).c_str());
    static std::deque<std::unique_ptr<cfgrec, decltype(&cfg_free)>> kept;
    return kept.emplace_back(cfg_read("test"), &cfg_free).get();
}
