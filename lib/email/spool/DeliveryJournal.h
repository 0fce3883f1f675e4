// Who an attempt that is still going on is done with. The recipient file is rewritten once, at the
// end of an attempt; whom a process that is killed before that had served, or had returned to the
// sender, stands here, so that the next attempt leaves those recipients out.
//
// The journal of the recipient file P is "P+": a line that tells which P it belongs to (a P that
// was written since is another one), then a line for each recipient. It is never synced: a power
// cut may take it, at the price of second copies. All operations are best effort, and are for the
// holder of the message's lock.
#pragma once

#include <string>

class MailList;

namespace Email {

class DeliveryJournal {
public:
    explicit DeliveryJournal(std::string recipientFile);

    // Takes the recipients that an earlier run was done with off the list, and removes the journal
    // of an older list. True when somebody was taken off.
    bool takeDone(MailList& list);

    // Keeps these in mind. Nothing is written before flush(): an attempt of a single conversation
    // needs no journal.
    void note(const MailList& done);

    // Writes what was noted: before the next server is talked to, and when the recipient file could
    // not be rewritten.
    void flush();

    // Removes the file, if there is one: the recipient file says it all, or is gone.
    void remove() noexcept;

private:
    [[nodiscard]] std::string owner() const;

    std::string recipientFile_;
    std::string path_;
    std::string noted_;
    bool exists_ = false;
};

} // namespace Email
