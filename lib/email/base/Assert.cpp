#include "email/base/Assert.h"

#include "libevrep/EventContext.h"
#include "libevrep/Reporter.h"

#include <cstdlib>

namespace {

constexpr std::uint32_t kAudience = 2;
constexpr std::uint32_t kSeverity = 32;

FailedCheck failed{};

const char* orEmpty(const char* text) noexcept {
    return text != nullptr ? text : "";
}

} // namespace

const FailedCheck* failedCheck() noexcept {
    return failed.condition != nullptr ? &failed : nullptr;
}

void assert_failure(const char* condition, const char* file, std::uint32_t line) {
    // For the line that the exit writes; from here only an event goes out.
    failed = {orEmpty(condition), orEmpty(file), line};
    GW_EVENT event = Reporter::createEvent(MANAGEMENT_CONTEXT, kSeverity, kAudience,
                                           EVENT_SYS_ERROR, Reason_Unknown, nullptr, nullptr);
    event.m_PropertyBag.Set(EPROP_ATTRIBUTE, condition);
    event.m_PropertyBag.Set(EPROP_FILENAME, file);
    event.m_PropertyBag.Set(EPROP_LINE_NUMBER, line);
    Reporter::reportEvent(event);
    std::exit(EXIT_FAILURE);
}
