// The delivery engine: decides whether a message is due, runs one pass over its recipients, returns
// what failed for good and keeps the rest in the deferred queue.
//
// Every step is told through logEvent(): it writes the step's system-log line (DeliveryLog.h) and
// hands an event record (deliveryEvents.h) to the reporter. What becomes of the files of a message,
// and what a crash leaves of them, stands in docs/spool.md.
#pragma once

#include "email/engine/RunCounts.h"
#include "email/smtp/Sender.h"
#include "email/spool/MailList.h"
#include "email/spool/QueuedMessage.h"
#include "email/spool/Recipients.h"

#include <functional>
#include <iosfwd>
#include <memory>
#include <optional>
#include <vector>

class FileName;

namespace Email {
class MessageLock;
} // namespace Email

// What became of a message.
enum SendResult : int {
    SEND_FINISHED = 0, // every recipient was delivered or returned: delete the files
    SEND_DEFERRED = 1, // the deferred queue holds the message: keep the files
    SEND_ERROR = 2,    // the deferred copy could not be written: delete the files
};

class ListSender : public Sender {
public:
    // Seconds of look-ups without result after which no more are made ahead of a conversation.
    // Those recipients are looked up when their own turn comes.
    static constexpr std::chrono::seconds kLookAheadLimit{60};

    // Construction and destruction clear the process's alarm.
    ListSender();
    ~ListSender() override;

    // Writes the event's line, if its gate is open, and reports its record, if its kind is wanted.
    // `text` may be null. EV_NONE does nothing.
    void logEvent(eventId event, const char* text, int value) override;

    // Writes a "tls-failed" line about the recipient that a server is searched for.
    void tlsFailed(const std::string& why) override;
    void signInFailed(const std::string& why, bool relayRefuses) override;

    // Forgets the message: size, server, name and trace. The recipients stay.
    void clear() noexcept;

    // --- Four ways to hand a message in. Their results differ, as the gateway's other programs
    // expect them: true is good in the two that take an entry or a stream with its name, bad in the
    // one that takes sender and recipient; in the core's SendResult the best is 0.

    // Delivers a message of a queue directory (the deferred one, or the outgoing one) and deletes
    // its files unless it is kept. A message whose text cannot be opened, or whose recipient file
    // cannot be read, is deleted too, unless it is this host that is short of descriptors or
    // memory: then the message is kept and stopped() tells why. True when it was finished or kept.
    bool Send(const FileName& entry, bool deferred, int traceLevel);

    // The engine's core: one attempt on a text whose recipients are in this engine. `onDisc` tells
    // whether the text lies in a queue directory under `name` or only in memory.
    SendResult Send(std::istream& text, bool deferred, const char* name, bool onDisc);

    // A text in memory; true unless its deferred copy could not be written.
    bool Send(std::istream& text, const char* name);

    // A text in memory to one recipient, under a new "rjct" name. True when it is not done
    // with at once, whether it could be queued or not.
    bool Send(const char* sender, const char* recipient, std::istream& text);

    // One delivery pass. Recipients that were not delivered end in `failed` with their codes; true
    // when there are none. Deferred mail tries every recipient; other mail stops after the first
    // connection that left one failed, and the untried ones keep their codes.
    bool SendOnce(MailList& failed, std::istream& text, bool deferred);

    // Returns the failed recipients to the sender in one return mail, which is sent at once or
    // queued; the list is empty afterwards. A null sender gets nothing. A text in the bad state
    // ends the run.
    void Bounce(MailList& failed, std::istream& text);

    // Writes the return mail and empties the list; true. A bad stream ends the run.
    bool BuildReturnMail(MailList& failed, std::ostream& out, std::istream& text);

    // True when the message has been deferred for longer than "smtp-max-deferral".
    [[nodiscard]] bool CheckTime() const;
    // True when the last attempt was made within "smtp-min-deferral".
    [[nodiscard]] bool tooSoon() const;

    // Stores both deadlines and arms the alarm from the second; zero means none. A second deadline
    // that has passed raises the alarm flag at once.
    void setDeadLines(const DateTime& first, const DateTime& second);

    Recipients& recipients() noexcept { return recipients_; }

    // From now on, of a deferred message only recipients for which that holds are tried; a message
    // with none of them is left alone. The others stay on its list as they are, also when it is
    // overdue: nobody is given up who was not asked for. Null: all.
    using Wanted = std::function<bool(const EmailAddr&)>;
    void tryOnly(Wanted wanted) { wanted_ = std::move(wanted); }

    // The errno number of a trouble that would meet the next message as well; 0 while there is
    // none. Nothing more should be tried then.
    [[nodiscard]] int stopped() const noexcept { return stopped_; }
    // Since its construction, with those of the return mails that it sent.
    [[nodiscard]] const Email::RunCounts& counts() const noexcept { return counts_; }

protected:
    // What became of a recipient in this attempt, with its line: exactly once for each that was
    // tried. `known` may be null.
    virtual void tellOutcome(Email::LogLine line, const EmailAddr& rcpt, int code,
                             const Email::Attempt* known);

    // Ends the run because of this message, with a line.
    void stop(const char* message, int error);

    // The recipient that the event at hand is about; null for one about the message.
    [[nodiscard]] const EmailAddr* currentRecipient() const noexcept { return searchingFor; }

    int trace = 0;
    bool returnMessage = false; // this engine sends a return mail
    Recipients recipients_;
    const Email::MessageLock* listLock_ =
        nullptr; // of the message given to Send(), where it is held
    Email::RunCounts counts_;

private:
    // One message of a queue directory, up to what becomes of its files.
    SendResult sendQueued(Email::QueuedMessage& message, const FileName& entry, bool deferred);
    SendResult unusable(eventId event, const FileName& text, int error);
    [[nodiscard]] bool mayBeMeant(int error) noexcept;
    SendResult sendNew(const char* sender, const char* recipient, std::istream& text);
    SendResult attempt(std::istream& text, bool deferred, const char* name,
                       Email::QueuedMessage* message);
    // False, with a line, when what comes next could not be written down: nothing more may be done
    // for this message in this run.
    bool secured(const MailList& failed);
    void noteServed() noexcept;
    [[nodiscard]] bool mayGoOut(bool deferred) const noexcept;

    // Looks servers up for all recipients that are left, once in a pass.
    void beforeConnecting(IPaddress server) override;

    // One conversation of a pass.
    void converse(MailList& failed, std::istream& text, SMTPcode& code);
    [[nodiscard]] bool needsUtf8(const EmailAddr& first) const;
    [[nodiscard]] std::vector<const char*> servedWith(const EmailAddr& first);
    void deliver(std::unique_ptr<EmailAddr> first, MailList& failed, std::istream& text,
                 SMTPcode& code);
    void gather(MailList& accepted, MailList& failed, SMTPcode& code);
    void refuse(std::unique_ptr<EmailAddr> rcpt, MailList& failed, SMTPcode code);
    void refuseAll(MailList& accepted, MailList& failed, SMTPcode code);
    // The conversation at hand, as the recipients keep it whose fate it decided.
    [[nodiscard]] std::shared_ptr<const Email::Attempt> attemptAsOfNow() const;
    void reportDelivered(const MailList& accepted, SMTPcode code);

    // Those who are not wanted go to `failed`, marked; false when nobody else is there.
    bool leaveOut(MailList& failed);

    // Returns what failed for good and puts the rest into the deferred queue.
    SendResult settle(MailList& failed, std::istream& text, bool deferred,
                      Email::QueuedMessage* message);
    SendResult rewriteDeferred(Email::QueuedMessage& message);
    SendResult moveOutgoing(const Email::QueuedMessage& outgoing);
    SendResult storeNew(std::istream& text);
    SendResult writeFirstList(Email::QueuedMessage& copy);
    void reportDeferred();
    void dropFailed(MailList& failed);
    [[nodiscard]] std::string returnText(const MailList& failed, std::istream& text) const;

    // Log lines.
    void tellTrouble(eventId event, int error);
    void tellOfServer(Email::LogLine line, const std::string& why);
    void traceLine(Email::LogLine line, const char* text) const;
    void logStep(eventId event, const EmailAddr* about, int error) const;
    void reportStep(eventId event, const char* text, int value);
    void tellEach(Email::LogLine line, const MailList& list);

    Wanted wanted_;
    Email::QueuedMessage* queued_ = nullptr; // the deferred queue's message that is being attempted
    int deniedTexts_ = 0;                    // in a row
    int stopped_ = 0;
    bool lookedAhead_ = false; // in this pass
};
