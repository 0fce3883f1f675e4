// Where events go: one reporter object a process, chosen by the application.
#pragma once

#include "libevrep/EventContext.h"

#include <cstdint>
#include <memory>
#include <mutex>

// Which kinds of delivery events are raised; any value but 0 means on. Nothing derives one from
// another, and the library itself reads none of them.
extern std::int32_t ReportingMode; // 0 at start
extern std::int32_t DetailMode;    // 1 at start
extern std::int32_t ErrorMode;     // 1 at start
extern std::int32_t DebugMode;     // 0 at start

// What an application makes of the events. `report` runs for one event at a time and must not
// raise events itself.
class AbstractReporter {
public:
    virtual void report(const GW_EVENT& event) = 0;
    virtual ~AbstractReporter() = default;
};

class Reporter {
public:
    // Supplied by each application.
    [[nodiscard]] static std::unique_ptr<AbstractReporter> makeInstance();

    // Creates the instance if there is none and allows events (again).
    static void startup();

    // Destroys the instance; events are refused from now on.
    static void shutdown();

    // Passes the event on, stamped with the subsystem's name and version; creates the instance if
    // there is none yet. After shutdown() the event is refused with a line in the system log. An
    // event code outside 1 to EVENT_LAST is dropped silently.
    static void reportEvent(GW_EVENT& event);

    // A fresh event. A null code location stores none; the scan rule is used with SCAN_CONTEXT
    // only and may be null; STATS_CONTEXT leaves the context itself to the caller; a
    // discriminant without a context gives UNDECIDED. The common context stays empty.
    [[nodiscard]] static GW_EVENT createEvent(GW_UNION_DISCRIMINANT discriminant,
                                              std::uint32_t severity, std::uint32_t audience,
                                              ReportableEvent event, Reason reason,
                                              const char* codeLocation, const char* scanRule);

    // Does nothing: the mutex is ready before main.
    static void InitLock() noexcept {}
    static constexpr bool lockInit = true; // whether it is

    enum State : std::int32_t { notStarted = 0, startedOnDemand = 1, started = 2, shutDown = 3 };

    static std::unique_ptr<AbstractReporter> c_pInstance; // guarded by instanceLock
    static std::mutex instanceLock;
    static State c_State; // guarded by instanceLock

    // Written by the program at its start, before the first event.
    static char c_szSubSystemName[128];
    static char c_szSubSystemVersion[128];

private:
    [[nodiscard]] static bool provideInstance();
};
