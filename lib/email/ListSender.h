// The delivery engine: decides whether a message is due, runs one pass over its recipients, returns
// what failed for good and keeps the rest in the deferred queue.
#pragma once

#include "email/MailList.h"
#include "email/Recipients.h"
#include "email/Sender.h"

#include <iosfwd>

class FileName;

// What became of a message.
enum SendResult : int {
    SEND_FINISHED = 0, // every recipient was delivered or returned: delete the files
    SEND_DEFERRED = 1, // the deferred queue holds the message: keep the files
    SEND_ERROR = 2,    // the deferred copy could not be written: delete the files
};

class ListSender : public Sender {
public:
    // Construction and destruction clear the process's alarm.
    ListSender();
    ~ListSender() override;

    void logEvent(eventId event, const char* text, int value) override;

    // Forgets the message: size, server, name and trace. The recipients stay.
    void clear() noexcept;

    // Delivers a message of a queue directory (the deferred one, or the outgoing one) and deletes
    // its files unless it is kept. True when it was finished or kept.
    bool Send(const FileName& entry, bool deferred, int traceLevel);

    // The engine's core: one attempt on a text whose recipients are in this engine.
    SendResult Send(std::istream& text, bool deferred, const char* name, bool onDisc);

    // A text in memory; true unless its deferred copy could not be written.
    bool Send(std::istream& text, const char* name);

    // A text in memory to one recipient, under a new "rjct" name. True when it was not finished.
    bool Send(const char* sender, const char* recipient, std::istream& text);

    // One delivery pass. Recipients that were not delivered end in `failed` with their codes; true
    // when there are none.
    bool SendOnce(MailList& failed, std::istream& text, bool deferred);

    // Returns the failed recipients to the sender; a null sender gets nothing.
    void Bounce(MailList& failed, std::istream& text);
    bool BuildReturnMail(MailList& failed, std::ostream& out, std::istream& text);

    // True when the message has been deferred for too long.
    [[nodiscard]] bool CheckTime() const;
    // True when the last attempt is too recent.
    [[nodiscard]] bool tooSoon() const;

    // Stores both deadlines and arms the alarm from the second; zero means none.
    void setDeadLines(const DateTime& first, const DateTime& second);

    Recipients& recipients() noexcept { return recipients_; }

protected:
    int trace = 0;
    bool returnMessage = false;
    Recipients recipients_;
};

// Sets the alarm flag, then arms SIGALRM in `seconds`, or disarms it when that is 0.
void SetAlarm(bool expired, int seconds) noexcept;
