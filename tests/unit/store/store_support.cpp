#include "store_support.h"

#include "libevrep/Reporter.h"

#include <cstdlib>
#include <deque>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <set>
#include <sstream>
#include <time.h>

namespace {

class RecordingReporter : public AbstractReporter {
    void report(const GW_EVENT& event) override {
        std::cerr << event.m_EventID << " version=" << event.m_iStructVersion
                  << " audience=" << event.m_intendedAudience
                  << " severity=" << event.m_EventContext.m_Severity
                  << " reason=" << event.getManagementContext()->m_iReasonID;
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

Scratch::Scratch() : root_("/tmp/storetestXXXXXX") {
    if (::mkdtemp(root_.data()) == nullptr) {
        std::abort();
    }
}

Scratch::~Scratch() {
    std::error_code ignored;
    std::filesystem::remove_all(root_, ignored);
}

std::string Scratch::path(std::string_view leaf) const {
    return root_ + '/' + std::string(leaf);
}

std::string Scratch::write(std::string_view leaf, std::string_view text) const {
    std::ofstream(path(leaf), std::ios::binary) << text;
    return path(leaf);
}

std::string Scratch::read(std::string_view leaf) const {
    std::ifstream in(path(leaf), std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

std::string Scratch::names() const {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(root_)) {
        names.insert(entry.path().filename().string() + ' ');
    }
    std::string text;
    for (const std::string& name : names) {
        text += name;
    }
    return text;
}

void setZone(const char* tz) {
    ::setenv("TZ", tz, 1);
    ::tzset();
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
