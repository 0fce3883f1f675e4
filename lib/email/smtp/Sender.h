// The SMTP client (RFC 5321): has the servers of one destination chosen (ServerSearch.h), connects
// to the first that greets, and carries out single commands under time limits. The engine, which
// derives from it, gives the commands in order and decides what becomes of a recipient.
//
// Every operation that fails returns false with the code stored: the server's number, or 1001 when
// the conversation broke, 1002 no such host, 1003 no domain, 1004 this host itself, 1005 the text
// cannot be read, 1006 the time is up. Every code pointer may be null. Nothing throws.
//
// A server can cost a message its attempt, never more: replies are bounded in lines, in line length
// and in time, and no reply ends the run.
#pragma once

#include "email/base/SMTPcode.h"
#include "email/base/Utils.h"
#include "email/base/eventId.h"
#include "email/site/Dane.h"
#include "email/site/HostList.h"
#include "email/site/RelayAccess.h"
#include "email/site/TlsPolicy.h"
#include "email/smtp/ExtSocketClass.h"
#include "email/smtp/Pipeline.h"
#include "email/smtp/ServerExtensions.h"
#include "email/smtp/TextNeeds.h"
#include "email/spool/EmailAddr.h"
#include "email/telling/Attempt.h"

#include <chrono>
#include <cstdint>
#include <deque>
#include <iosfwd>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

class DomainRelay;

namespace Email {
class Authentication;
class TlsContext;
struct TlsTarget;
} // namespace Email

class Sender : public ExtSocketClass {
public:
    // A reply of more continuation lines is given up.
    static constexpr int kMaxContinuations = 1024;
    // So is one that lasts longer than this many times its limit, or than this many seconds,
    // whichever is more.
    static constexpr long long kReplyLimitFactor = 10;
    static constexpr long long kLeastReplyLimit = 60;
    // After so many read time-outs in a row nothing more is sent in a conversation.
    static constexpr int kMaxSilentReplies = 3;
    // A server that took no mail in a conversation of more than this goes onto the blacklist: one
    // that answers each time just before its limit would hold a walker with every message again.
    // Not a setting; only tests change it.
    static inline constinit std::chrono::steady_clock::duration holdLimit =
        std::chrono::minutes(10);
    // A body goes out in blocks of this many bytes, whatever its size.
    static constexpr std::size_t kBlockSize = std::size_t{64} * 1024;

    Sender() = default;
    ~Sender() override = default;

    // Progress and failures, by event number; `text` may be null. From here: 101, 106, 110, 115
    // (value: error number), 116 to 121, 124 and the event of a relay table, all without a text.
    // For 115, 117 and 118 serverAddress is the server in question.
    virtual void logEvent(eventId event, const char* text, int value) = 0;

    // Why a server did not get the TLS that it should have got, or what it tried meanwhile.
    virtual void tlsFailed(const std::string& /*why*/) {}
    // Why mail cannot go through a relay that must be signed in to; no secret is in it. With
    // `relayRefuses` it is serverAddress, which is on the blacklist then.
    virtual void signInFailed(const std::string& /*why*/, bool /*relayRefuses*/) {}

    // True when no further command may be started: the alarm has fired or the deadline has passed.
    [[nodiscard]] bool CommandTimeOut() const noexcept;

    // Writes one command line; `arg` may be null. False with 1006 when the time is up (the server
    // is told QUIT, if it still can be, and the transport closed); with 1001 when the line is too
    // long or holds a CR or LF (nothing is sent), the write failed or the server has fallen silent.
    // A line that could only be sent in part counts as sent: its reply will not come.
    bool sendCommand(const char* cmd, const char* arg, long timeoutSecs, SMTPcode* code);

    // Reads one reply, of any number of lines, and returns (and stores) the number of its last
    // line, whatever it is; 1001 when it is unreadable. Once a reply did not come in time, later
    // ones may answer earlier commands: until the transport closes, 500 to 599 is then taken as
    // 1001, so that nobody's mail is returned on another recipient's reply.
    int readReply(long timeoutSecs, SMTPcode* code);

    // True when the server greets with 220.
    bool ReadBanner();

    // Connects to the first address that greets and, where the rule table asks for EHLO and TLS,
    // gives the domain the protection that it must have. Servers on the blacklist are passed over;
    // one that cannot be reached or does not greet goes onto it. The list holds at most
    // max_addr_to_try entries, or the run ends.
    bool tryOpen(const IPaddressList& list, int port);

    // Connects through the relays for the domain, on port 25 or, signing in, on the relay's own
    // ("relay-access"); `tried` is set when there were any.
    bool tryRelays(DomainRelay& relays, const char* domain, bool& tried);

    // Finds servers for the recipient's domain and connects to one: the relays of the domain, else
    // its mail exchangers, else the fallback relays; a literal's address directly. A relay that
    // matched and failed ends the search.
    bool OpenTransport(SMTPcode& code, EmailAddr* rcpt);
    // Ends the conversation; see holdLimit.
    void CloseTransport() noexcept;

    bool SendHELO(SMTPcode* code);

    // Before SendMAIL(): reads the text, if the server offers what may be said of it then.
    void consider(std::istream& text, bool utf8Needed);
    // True when the recipient's domain is content with the protection of this connection.
    [[nodiscard]] bool mayShare(const EmailAddr& rcpt) const;

    // True when MAIL, RCPT and DATA may be written ahead of the replies.
    [[nodiscard]] bool takesAhead() const noexcept;
    // Before SendMAIL(), and only then: all recipients that SendRCPT() will be called for, in that
    // order. The commands and their results are as without; those of the first window leave with
    // MAIL. The texts must stay where they are until the transport closes.
    void sendAhead(std::vector<const char*> recipients);

    // With 552, and nothing sent, for a text that is larger than the server takes.
    bool SendMAIL(const char* from, SMTPcode* code);
    bool SendRCPT(const char* to, SMTPcode* code);
    bool SendRSET(SMTPcode* code);
    // True when it was sent; the reply is awaited but not judged. With replies outstanding that do
    // not come, or a text begun ahead that nobody may get, the transport is closed instead.
    bool SendQUIT(SMTPcode* code);

    // Sends the whole text as the message body; true when the server took it. The name is not used.
    // Nothing is sent of a last line without a line feed. The closing dot goes out only when all of
    // the text was read and sent; a text that shrank meanwhile counts as unreadable.
    bool SendDATA(std::istream& message, const char* name, SMTPcode* code);

protected:
    // What the server offered, once EHLO was said to it.
    [[nodiscard]] const Email::ServerExtensions& offered() const noexcept {
        return session_.offered;
    }
    // As whom we are signed in, or were to be; empty for nobody.
    [[nodiscard]] std::string_view user() const noexcept {
        return access_ == nullptr ? std::string_view() : access_->user;
    }
    // Each line of the conversation as it stands on the wire, a command's with its end; of a body
    // nothing but its closing dot, and asterisks for what is secret.
    enum class Side { Us, Server };
    virtual void lineSaid(Side /*by*/, std::string_view /*line*/) {}

    std::int32_t messageSize = -1;          // bytes; -1 until a body was sent
    const char* serverName = nullptr;       // for the event records; nobody here sets it
    IPaddress serverAddress;                // the server last tried or connected
    std::optional<std::string> messageName; // the message in hand: set by the engine
    DateTime commandDeadline;               // DateTime(0): none
    DateTime finalDeadline;                 // kept for the engine
    std::int32_t greeting = 0;              // reply code of the last greeting, 1001 without one
    // What is known of it, from the search for a server on. QUIT is no step of it.
    Email::Attempt conversation;
    // Whom OpenTransport() finds a server for, while it runs: the events that it raises are about
    // this recipient.
    const EmailAddr* searchingFor = nullptr;

private:
    // Called before each connection is made: the last moment at which nobody waits.
    virtual void beforeConnecting(IPaddress /*server*/) {}

    int openSocket(IPaddress address, int port) noexcept;
    bool tryAddress(IPaddress address, int port);
    class Search;

    // Opening with EHLO and TLS: SenderSession.cpp.
    [[nodiscard]] bool wantsSession() const noexcept;
    bool decideProtection(IPaddress address, int port);
    [[nodiscard]] bool mayShareDane(const char* domain) const;
    [[nodiscard]] Email::TlsTarget tlsTarget() const;
    bool openAgain(IPaddress address, int port);
    bool sayEhlo(SMTPcode& code);
    bool sayHello(IPaddress address, int port);
    bool openSession(IPaddress address, int port);
    bool secure(IPaddress address, int port);
    std::string helloBehindTls();
    bool tlsMissing(const std::string& why);
    bool goOnInTheClear(IPaddress address, int port);
    std::string startTls(IPaddress address);
    std::string shakeHands(Email::TlsContext& context, IPaddress address);
    [[nodiscard]] std::string mailArgument(const char* from) const;

    // Writing commands, also ahead of replies: SenderPipeline.cpp.
    void tellCommands(std::string_view lines);
    bool writeCommand(std::string_view line, long timeoutSecs);
    void noteRecipient(int code) noexcept;
    void readWindow(long timeoutSecs);
    void distrustHeld();
    int takeHeld();
    bool catchUp();
    bool endEmpty(long timeoutSecs);

    // Signing in to a relay: SenderSignIn.cpp.
    struct Secret {
        std::string_view text; // what is said
        std::string shown;     // the line that is shown for it
        std::string challenge; // the text of the reply
    };
    bool mayUseRelays();
    [[nodiscard]] const Email::RelayAccess::Line* accessTo(IPaddress address) const;
    [[nodiscard]] bool isSignedInFor(const char* domain) const;
    bool protectAtOnce(IPaddress address);
    bool openAsUser(IPaddress address, int port);
    std::string signIn();
    std::string exchangeTexts(Email::Authentication& exchange, const std::string& name);
    int saySecret(const char* command, std::string& text, const std::string& shown,
                  std::string& challenge);
    void hideSecret(std::string& reply);
    bool failSignIn(const std::string& why);

    int readNumber(long timeoutSecs);
    bool command(Email::Stage stage, const char* cmd, const char* arg, long timeoutSecs,
                 SMTPcode* code);
    void tellMissingReply(int err, long timeoutSecs);

    struct Block;
    bool writeBlock(Block& block);
    bool beginData(SMTPcode* code);
    bool rewind(std::istream& message, SMTPcode* code);
    bool endBody(Block& block, SMTPcode* code);
    bool sendText(std::istream& message, Block& block, SMTPcode* code);
    bool giveUp(SMTPcode* code, SMTPcode value) noexcept;
    bool textUnreadable(SMTPcode* code, std::string why);

    std::unique_ptr<char[]> bodyRoom_; // a Block's, kept for the next body

    // What the domain that a server is searched for must get.
    Email::TlsLevel level_ = Email::TlsLevel::None;
    std::string domain_;
    // What the server in hand must be given for it: never Dane without records.
    struct Protection {
        Email::TlsLevel level = Email::TlsLevel::None;
        int port = 0;
        Email::DaneVerdict dane{};
    };
    Protection required_;
    const DomainRelay* relays_ = nullptr; // the table whose relays are tried, while they are
    bool accessFailed_ = false;           // in this search a relay was not signed in to

    struct Session {
        std::optional<SMTPcode> hello; // result of EHLO or HELO, when it was said on connecting
        Email::ServerExtensions offered;
        std::string name; // of the server, as TLS asked for it
        bool broken = false;
        struct Reply {
            int number;
            std::string text;
            std::string error;
        };
        Email::Pipeline pipeline;
        std::deque<Reply> held;         // to commands of the pipeline, in their order
        bool mayHaveRecipients = false; // one was not clearly refused
    };
    const Email::RelayAccess::Line* access_ = nullptr; // as whom the server is used; null: nobody
    Secret* secret_ = nullptr;                         // what is said, while it is to be hidden
    Email::ServerExtensions* answer_ = nullptr;        // takes the lines of the reply that is read
    Email::TextNeeds needs_;
    bool utf8Needed_ = false;

    // State of one conversation, cleared when the transport closes.
    Session session_;
    std::optional<std::chrono::steady_clock::time_point> heldSince_; // greeted, no mail taken yet
    bool replyLost_ = false;                                         // a reply did not come in time
    int silentReplies_ = 0;                                          // read time-outs in a row
};

// Size of a stream in bytes, its position kept; -1 when it cannot tell, at most INT32_MAX.
int GetFileSize(std::istream& stream);

// True for the positive completion codes 200 to 299.
[[nodiscard]] bool success(int code) noexcept;
