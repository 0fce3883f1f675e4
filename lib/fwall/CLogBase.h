// The socket to the standard-log collector, "/var/run/stdlog", and the logging mode.
#pragma once

#include "fwall/UniqueFd.h"

#include <sys/socket.h>
#include <sys/un.h>

struct DaemonMsg;

// Where messages go. Either bit of the mask selects the datagram.
enum LogMode : int { LOG_MODE_SYSTEM = 1, LOG_MODE_DATAGRAM = 16, LOG_MODE_DATAGRAM_MASK = 0x110 };

class CLogBase {
public:
    // With LOG_NDELAY in `options` the socket is opened at once; when that fails the process ends
    // with status 1.
    explicit CLogBase(int options);
    virtual ~CLogBase() = default;

    CLogBase(const CLogBase&) = delete;
    CLogBase& operator=(const CLogBase&) = delete;

    // Opens the local datagram socket, close-on-exec. Returns 0 or the error number, which is
    // logged.
    int OpenLogFile();

    // Sends one record, opening the socket first when it is closed; the process ends with the error
    // number as its status when it cannot be opened. While the collector's queue has no room
    // (ENOBUFS) it tries again every second, without limit; after any other failure, a collector
    // that is not there included, the record is lost and that is logged.
    void SendLogStruct(const DaemonMsg& message);

    [[nodiscard]] int mode() const noexcept { return mode_; }
    [[nodiscard]] bool toSystemLog() const noexcept { return (mode_ & LOG_MODE_SYSTEM) != 0; }
    [[nodiscard]] bool toDatagram() const noexcept { return (mode_ & LOG_MODE_DATAGRAM_MASK) != 0; }

protected:
    void setMode(int mode) noexcept { mode_ = mode; }

private:
    int openSocket() noexcept;

    UniqueFd socket_;
    sockaddr_un address_{};
    int mode_ = LOG_MODE_SYSTEM;
};
