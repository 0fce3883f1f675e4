// The SMTP client (RFC 5321): chooses the servers of one destination, connects to the first that
// greets, and carries out single commands under time limits.
#pragma once

#include "email/EmailAddr.h"
#include "email/ExtSocketClass.h"
#include "email/HostList.h"
#include "email/SMTPcode.h"
#include "email/Utils.h"
#include "email/eventId.h"

#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>

class DomainRelay;

class Sender : public ExtSocketClass {
public:
    Sender() = default;
    ~Sender() override = default;

    // Progress and failures, by event number; `text` may be null.
    virtual void logEvent(eventId event, const char* text, int value) = 0;

    // True when no further command may be started: the alarm has fired or the deadline has passed.
    [[nodiscard]] bool CommandTimeOut() const noexcept;

    // Writes one command line. False, with the code stored (1006 after the deadline, else 1001),
    // when it could not be sent. Every code pointer of this class may be null.
    bool sendCommand(const char* cmd, const char* arg, long timeoutSecs, SMTPcode* code);

    // Reads one reply, of any number of lines, and returns (and stores) its number; 1001 when it is
    // unreadable.
    int readReply(long timeoutSecs, SMTPcode* code);

    // True when the server greets with 220.
    bool ReadBanner();

    // Connects to the first address that greets. Those that fail go onto the blacklist.
    bool tryOpen(const IPaddressList& list, int port);

    // Connects through the relays for the domain; `tried` tells whether there were any.
    bool tryRelays(DomainRelay& relays, const char* domain, bool& tried);

    // Finds servers for the recipient's domain and connects to one. False with the code stored.
    bool OpenTransport(SMTPcode& code, EmailAddr* rcpt);
    void CloseTransport() noexcept;

    bool SendHELO(SMTPcode* code);
    bool SendMAIL(const char* from, SMTPcode* code);
    bool SendRCPT(const char* to, SMTPcode* code);
    bool SendRSET(SMTPcode* code);
    bool SendQUIT(SMTPcode* code);

    // Sends the whole text as the message body; true when the server took it. The name is not used.
    bool SendDATA(std::istream& message, const char* name, SMTPcode* code);

protected:
    std::int32_t messageSize = -1;          // bytes; -1 until a body was sent
    const char* serverName = nullptr;       // word for the deriving class: never set here
    IPaddress serverAddress;                // the server last tried or connected
    std::optional<std::string> messageName; // word for the deriving class
    DateTime commandDeadline;               // DateTime(0): none
    DateTime finalDeadline;

private:
    bool openDirect(const char* domain, int port);
    bool sendBody(std::istream& message, SMTPcode* code);
    bool giveUp(SMTPcode* code, SMTPcode value);
    int readJudgedReply(long timeoutSecs, SMTPcode* code);

    // State of one conversation, cleared when the transport closes.
    bool replyLost_ = false;    // a reply timed out: later replies may answer earlier commands
    int silentReplies_ = 0;     // read time-outs in a row
};

// Size of a stream in bytes, its position kept; -1 when it cannot tell, at most INT32_MAX.
int GetFileSize(std::istream& stream);

// True for the positive completion codes 200 to 299.
[[nodiscard]] bool success(int code) noexcept;
