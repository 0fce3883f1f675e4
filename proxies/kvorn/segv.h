// The crash handler shared by the gateway's mail programs: a stack trace to the system log under an
// identity of its own, then the end of the process for signals that are fatal.
#pragma once

// The system-log identity of the trace. Not copied: the text must live as long as the process.
extern const char* segv_process_name;

// Asks for a trace without any signal; the process goes on.
inline constexpr int kTraceRequest = 65535;

// Takes the lines of a trace.
class StackTraceFunctor {
public:
    StackTraceFunctor() = default;
    virtual ~StackTraceFunctor() = default;
    StackTraceFunctor(const StackTraceFunctor&) = delete;
    StackTraceFunctor& operator=(const StackTraceFunctor&) = delete;

    virtual void operator()(const char* line) = 0;
};

// Writes a trace to the system log: the header when made, the footer and the closing of the log
// when destroyed. Facility daemon, priority error.
class PrintToSyslog : public StackTraceFunctor {
public:
    // `identity` must outlive the object.
    PrintToSyslog(const char* signalName, const char* identity);
    ~PrintToSyslog() override;

    void operator()(const char* line) override;

    static constexpr const char* m_header = "---------- Start of stack trace ---------------";
    static constexpr const char* m_footer = "---------------- End of stack trace -----------------";
};

// Sends up to `depth` frames, innermost first, to the sink. Never throws; without memory, without
// symbols or after an exception of the sink it says so in one line. The text is not used.
void printStackTrace(int depth, const char* unused, StackTraceFunctor& sink) noexcept;

// Logs the trace. When that takes longer than 30 seconds, because the signal came inside the system
// log or the allocator, SIGALRM ends the process; else a pending alarm, errno and the name of the
// process's own log lines are as before. Returns for SIGUSR2, SIGPIPE and kTraceRequest; ends the
// process with the signal's number as exit status for all others.
void segv_handler(int sig);

// Installs segv_handler for SIGSEGV, SIGABRT and SIGUSR2; each signal's mask and flags stay.
void install_segv_handler();
