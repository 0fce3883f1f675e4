// The one entry point of the proxy library's log messages, SendLog(), and what stands behind it.
//
// Without a service context a message goes to vsyslog() as it is. With one, the service's "logging"
// switch sends it to the system log (escaped), to the standard-log collector as a DaemonMsg, to
// both or to none. One thread only.
//
// Every "%m" of a format is the text of errno as it was when the function was called. Formats come
// from the program; text from outside is an argument.
#pragma once

#include "fwall/CLogBase.h"
#include "fwall/context.h"

#include <cstdarg>
#include <cstdint>
#include <memory>
#include <string>

// The attributes of a message. A caller starts from the defaults and changes what it needs; the
// record and its texts stay the caller's.
struct UNIQUE_DATA_T {
    std::int32_t size = 356; // the same on 32-bit and 64-bit hosts
    std::int32_t version = 1;
    std::int32_t messageId = 501;
    const char* tag = nullptr; // up to 20 bytes are used
    std::int32_t param1 = -1;
    std::int32_t param2 = -1;
    std::int32_t param3 = -1;
    const char* preformatted = nullptr; // the datagram's text, instead of the formatted message
    std::int32_t lineNumber = 0;
    char detail[64] = {};
    char extra[256] = {};
};

// The process's one Log: made by G_OpenLog() or by the first message with a service context, and
// closed by G_CloseLog(). It holds the service's logging mode as it was when it was made.
class Log : public CLogBase {
public:
    // Without a service context the mode is the system log. A context without a name becomes
    // "unknown". With LOG_NDELAY in `options` the datagram socket is opened at once. When the mode
    // has the system log, LOG_USER becomes LOG_DAEMON and openlog() is called if there is an ident.
    Log(const char* ident, CServiceContext* service, int options, int facility);
    // Calls closelog() when the mode has the system log.
    ~Log() override;

    Log(const Log&) = delete;
    Log& operator=(const Log&) = delete;

    void SendLog(CServiceContext* service, CConnectionContext* connection,
                 const UNIQUE_DATA_T* data, int priority, const char* format, ...)
        __attribute__((format(printf, 6, 7)));
    // The formatted message is cut to 2047 bytes for the system log, 1023 for the datagram.
    void vSendLog(CServiceContext* service, CConnectionContext* connection,
                  const UNIQUE_DATA_T* data, int priority, const char* format, va_list arguments)
        __attribute__((format(printf, 6, 0)));
    // Sends one datagram, whatever the mode. Needs `service` and `data`, else it only complains;
    // `connection` may be null.
    void SendLogFormatted(const CServiceContext* service, const CConnectionContext* connection,
                          const UNIQUE_DATA_T* data, int priority, const char* text);

    // The LogMode bits of the first "logging" record of `list`, or with no list of the rule table's
    // lines for "default_logging": normal, slf, both or none. No record or a wrong value: the
    // system log. Wrong records are logged.
    static int CheckLogConfig(cfgrec* list);

    [[nodiscard]] int options() const noexcept { return options_; }
    // 0 when the facility given was not a valid one.
    [[nodiscard]] int facility() const noexcept { return facility_; }

private:
    std::string ident_; // openlog() keeps a pointer to it
    int options_ = 0;
    int facility_ = 0;
};

// All null unless a proxy's runtime sets them; the contexts are not owned.
extern CServiceContext* servContext;
extern CConnectionContext* connContext;
extern std::unique_ptr<Log> logObj;

// One message. With a service context logObj is made if there is none yet; the process ends with
// status 1 when that fails.
void SendLog(CServiceContext* service, CConnectionContext* connection, const UNIQUE_DATA_T* data,
             int priority, const char* format, ...) __attribute__((format(printf, 5, 6)));
void vSendLog(CServiceContext* service, CConnectionContext* connection, const UNIQUE_DATA_T* data,
              int priority, const char* format, va_list arguments)
    __attribute__((format(printf, 5, 0)));

// Replaces logObj by a new one; G_CloseLog() destroys it.
void G_OpenLog(const char* ident, CServiceContext* service, int options, int facility);
void G_CloseLog();

// A message at priority notice with this message code and the process's contexts.
void RVSendLog(std::int32_t messageId, const char* format, ...)
    __attribute__((format(printf, 2, 3)));
// The same with the code of debug messages, 19000.
void impDebugSendLog(const char* format, ...) __attribute__((format(printf, 1, 2)));
void impDebugSendLogNoop(const char* format, ...) __attribute__((format(printf, 1, 2)));

// One line to the system log, made printable by hexescNonAscii() and cut to 2047 bytes before and
// after that.
void qel_vsyslog(int priority, const char* format, va_list arguments)
    __attribute__((format(printf, 2, 0)));
