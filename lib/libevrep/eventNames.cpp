#include "libevrep/eventNames.h"

#include <algorithm>
#include <iterator>

namespace {

struct Name {
    std::int32_t number;
    std::string_view text;
};

constexpr Name events[] = {
#define REPORTABLE_EVENT(name, value) {value, #name},
#include "libevrep/ReportableEvents.inc"
#undef REPORTABLE_EVENT
};

constexpr Name reasons[] = {
#define EVENT_REASON(name, value) {value, #name},
#include "libevrep/Reasons.inc"
#undef EVENT_REASON
};

constexpr Name properties[] = {
#define EVENT_PROPERTY(name, value) {value, #name},
#include "libevrep/Properties.inc"
#undef EVENT_PROPERTY
};

constexpr Name protocols[] = {{0, "GW_PROT_NULL"}, {1, "GW_PROT_SMTP"}, {2, "GW_PROT_HTTP"},
                              {3, "GW_PROT_FTP"},  {4, "GW_PROT_POP3"}, {5, "GW_PROT_MAX"}};

constexpr Name tasks[] = {{0, "TASK_NOTHING"},       {1, "TASK_ECHO"},
                          {2, "TASK_ECHO_RESULT"},   {3, "TASK_EVENT"},
                          {4, "TASK_RETURN_FILTER"}, {5, "TASK_RETURN_FILTER_RESULT"}};

constexpr Name severities[] = {{1, "failure"}, {2, "news"}, {32, "failed-check"}};

constexpr Name priorities[] = {{0, "emerg"},   {1, "alert"},  {2, "crit"}, {3, "err"},
                               {4, "warning"}, {5, "notice"}, {6, "info"}, {7, "debug"}};

constexpr bool below(const Name& a, const Name& b) {
    return a.number < b.number;
}

template<std::size_t Size>
constexpr bool ascending(const Name (&table)[Size]) {
    return std::is_sorted(std::begin(table), std::end(table), below);
}
static_assert(ascending(events) && ascending(reasons) && ascending(properties) &&
              ascending(protocols) && ascending(tasks) && ascending(severities) &&
              ascending(priorities));

template<std::size_t Size>
std::string_view look(const Name (&table)[Size], std::int32_t number) {
    const auto* found =
        std::lower_bound(std::begin(table), std::end(table), Name{number, {}}, below);
    return found != std::end(table) && found->number == number ? found->text : std::string_view();
}

} // namespace

std::string_view eventName(std::int32_t code) noexcept {
    return look(events, code);
}

std::string_view reasonName(std::int32_t reason) noexcept {
    return look(reasons, reason);
}

std::string_view propertyName(std::int32_t key) noexcept {
    return look(properties, key);
}

std::string_view protocolName(std::int32_t protocol) noexcept {
    return look(protocols, protocol);
}

std::string_view taskName(std::int32_t task) noexcept {
    return look(tasks, task);
}

std::string_view severityName(std::uint32_t severity) noexcept {
    return look(severities, static_cast<std::int32_t>(severity));
}

std::string_view priorityName(std::int32_t priority) noexcept {
    return look(priorities, priority);
}
