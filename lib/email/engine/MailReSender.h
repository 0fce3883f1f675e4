// The queue walker: offers every entry of the deferred spool once, under its lock, to the engine.
//
// A message is whatever has a recipient file, whatever its name looks like; nothing is sorted or
// counted beforehand. Nothing that happens to one entry stops the walk.
#pragma once

#include "email/engine/ListSender.h"
#include "email/file/FileName.h"

namespace Email {
class MessageLock;
} // namespace Email

class MailReSender : public ListSender {
public:
    MailReSender() = default;

    // Walks the deferred spool once, in the order in which the system lists it, or until stopped().
    // Entries that appear meanwhile may be seen or not. A directory that cannot be opened or read
    // to its end is told in the log. Non-zero switches the per-file trace lines on.
    void RetryAll(int traceLevel);

    // Locks and delivers one entry. Left alone without a word: an entry without recipient file, one
    // that another process holds, and one whose path has 200 characters or more. One that takes
    // more memory than there is is passed over with a line.
    void tryFile(FileName* entry);

    // Delivers one locked entry; true when it was finished or kept.
    bool Send(const FileName& entry);

private:
    void tryEntry(FileName& entry);
    void countEntry(const Email::MessageLock& lock) noexcept;
    void traceFile(Email::LogLine line, const std::string& file) const;
    void deliverLocked(const FileName& entry, const std::string& lockFile);

    void passOver(const FileName& entry);

    int walkTrace_ = 0; // the engine forgets its own switch with every message
};
