#include "fwall/log.h"

#include "fwall/DaemonMsg.h"
#include "fwall/config.h"
#include "fwall/hexesc.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <string_view>

#include <syslog.h>

CServiceContext* servContext = nullptr;
CConnectionContext* connContext = nullptr;
constinit std::unique_ptr<Log> logObj;

namespace {

constexpr std::int32_t kDebugMessage = 19000;

struct ModeName {
    std::string_view value;
    int mode;
};
constexpr ModeName modeNames[] = {{"normal", LOG_MODE_SYSTEM},
                                  {"slf", LOG_MODE_DATAGRAM},
                                  {"both", LOG_MODE_SYSTEM | LOG_MODE_DATAGRAM},
                                  {"none", 0}};

int modeOf(const cfgrec* record) {
    if (record == nullptr) {
        return LOG_MODE_SYSTEM;
    }
    // Only a complaint: the first value counts all the same.
    if (record->argc != 1) {
        syslog(LOG_ERR, "cfgerr: logging keyword expects only one value, line %d", record->ln);
    }
    const char* value = record->argc > 0 ? record->argv[0] : "";
    for (const ModeName& name : modeNames) {
        if (name.value == value) {
            return name.mode;
        }
    }
    syslog(LOG_ERR, "cfgerr: invalid value %s for logging keyword, line %d", value, record->ln);
    return LOG_MODE_SYSTEM;
}

int modeOfService(CServiceContext& service) {
    const int mode = Log::CheckLogConfig(service.Config());
    const char* name = service.Name();
    if (name == nullptr || *name == '\0') {
        service.SetName("unknown");
    }
    return mode;
}

} // namespace

Log::Log(const char* ident, CServiceContext* service, int options, int facility)
    : CLogBase(options), ident_(ident == nullptr ? "" : ident), options_(options) {
    if (service != nullptr) {
        setMode(modeOfService(*service));
    }
    if (toSystemLog()) {
        facility = facility == LOG_USER ? LOG_DAEMON : facility;
        if (ident != nullptr) {
            openlog(ident_.c_str(), options, facility);
        }
    }
    facility_ = (facility & ~LOG_FACMASK) == 0 ? facility : 0;
}

Log::~Log() {
    if (toSystemLog()) {
        closelog();
    }
}

int Log::CheckLogConfig(cfgrec* list) {
    if (list != nullptr) {
        return modeOf(cfg_get("logging", list));
    }
    // Complains to the system log itself: SendLog() is what is being set up.
    cfgrec* defaults = cfg_read_no_SendLog("default_logging");
    const bool usable = defaults != nullptr && !cfg_failed(defaults);
    const int mode = modeOf(usable ? cfg_get("logging", defaults) : nullptr);
    cfg_free(defaults);
    return mode;
}

void Log::SendLog(CServiceContext* service, CConnectionContext* connection,
                  const UNIQUE_DATA_T* data, int priority, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    vSendLog(service, connection, data, priority, format, arguments);
    va_end(arguments);
}

void Log::vSendLog(CServiceContext* service, CConnectionContext* connection,
                   const UNIQUE_DATA_T* data, int priority, const char* format, va_list arguments) {
    const int error = errno;
    if (toSystemLog()) {
        // The arguments can be walked only once, and the datagram needs them too.
        va_list again;
        va_copy(again, arguments);
        qel_vsyslog(priority, format, again);
        va_end(again);
    }
    if (!toDatagram()) {
        return;
    }
    if (data != nullptr && data->preformatted != nullptr) {
        SendLogFormatted(service, connection, data, priority, data->preformatted);
        return;
    }
    std::array<char, sizeof(DaemonMsg::text)> text{};
    errno = error;
    std::vsnprintf(text.data(), text.size(), format, arguments);
    SendLogFormatted(service, connection, data, priority, text.data());
}

void Log::SendLogFormatted(const CServiceContext* service, const CConnectionContext* connection,
                           const UNIQUE_DATA_T* data, int priority, const char* text) {
    if (service == nullptr || data == nullptr) {
        syslog(LOG_ERR, "Failed to send standard log message: null parameter");
        return;
    }
    SendLogStruct(makeDaemonMsg(*service, connection, *data, priority, text));
}

void SendLog(CServiceContext* service, CConnectionContext* connection, const UNIQUE_DATA_T* data,
             int priority, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    vSendLog(service, connection, data, priority, format, arguments);
    va_end(arguments);
}

void vSendLog(CServiceContext* service, CConnectionContext* connection, const UNIQUE_DATA_T* data,
              int priority, const char* format, va_list arguments) {
    if (service == nullptr) {
        vsyslog(priority, format, arguments);
        return;
    }
    const int error = errno;
    if (logObj == nullptr) {
        G_OpenLog(nullptr, service, 0, LOG_USER);
    }
    errno = error;
    logObj->vSendLog(service, connection, data, priority, format, arguments);
}

void G_OpenLog(const char* ident, CServiceContext* service, int options, int facility) {
    // First: its destructor would close the system log that the new one opens.
    logObj.reset();
    try {
        logObj = std::make_unique<Log>(ident, service, options, facility);
    } catch (const std::bad_alloc&) {
        syslog(LOG_ERR, "Failed to create log object");
        std::exit(1);
    }
}

void G_CloseLog() {
    logObj.reset();
}

void RVSendLog(std::int32_t messageId, const char* format, ...) {
    const UNIQUE_DATA_T data{.messageId = messageId};
    va_list arguments;
    va_start(arguments, format);
    vSendLog(servContext, connContext, &data, LOG_NOTICE, format, arguments);
    va_end(arguments);
}

void impDebugSendLog(const char* format, ...) {
    const UNIQUE_DATA_T data{.messageId = kDebugMessage};
    va_list arguments;
    va_start(arguments, format);
    vSendLog(servContext, connContext, &data, LOG_NOTICE, format, arguments);
    va_end(arguments);
}

void impDebugSendLogNoop(const char* /*format*/, ...) {}

void qel_vsyslog(int priority, const char* format, va_list arguments) {
    std::array<char, 2048> text{};
    std::array<char, 2048> escaped{};
    std::vsnprintf(text.data(), text.size(), format, arguments);
    hexescNonAscii(escaped.data(), text.data(), escaped.size());
    // Not as the format: the text may come from outside.
    syslog(priority, "%s", escaped.data());
}
