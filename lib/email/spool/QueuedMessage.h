// One message of a queue directory, L: its files, and every change that is made to them. Whoever
// works on a message holds its lock (MessageLock) for as long as this object lives.
//
//   file     | what it is
//   L        | the text
//   L.rmd    | the recipient file (in the outgoing spool: L.rcp). It makes L a message, carries the
//            | lock, and names at every moment at least those who have to be tried yet
//   L.rmd~   | a recipient file being written, or room kept for it. Nobody reads it
//
// On hold, L.rmd has another name: Hold.h.
//
//   state    | L   | L.rmd | left by
//   queued   | yes | yes   | a rename of L.rmd~ (the first list, or a newer one)
//   stored   | yes | no    | store(), adopt(): no walker sees it before writeFirstList()
//   deleting | no  | yes   | remove(), between its calls: no walker offers it
//
// Each step from one state to the next is one system call, so a crash leaves a whole old list or a
// whole new one. docs/spool.md tells the calls, and what a crash at any point leaves.
#pragma once

#include "email/file/FileName.h"
#include "email/file/FileReplacement.h"
#include "email/spool/Recipients.h"

#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>

namespace Email {

class MessageLock;

// Why a step failed: an errno number, or 0 where the system gave none. Nothing when it did not.
using Trouble = std::optional<int>;

class QueuedMessage {
public:
    enum class Queue { Deferred, Outgoing };

    // The message of that queue's directory with the entry's leaf name. Touches no file.
    QueuedMessage(Queue queue, const FileName& entry);
    // The same in a directory of the caller's.
    QueuedMessage(Queue queue, const FileName& directory, const FileName& entry);

    // Gives room that was kept and not used back, and lets go of a list that it replaced.
    ~QueuedMessage() = default;
    QueuedMessage(const QueuedMessage&) = delete;
    QueuedMessage& operator=(const QueuedMessage&) = delete;

    [[nodiscard]] const FileName& text() const noexcept { return text_; }

    // What a recipient file's name adds to its message's, and the message that a name of a
    // recipient file belongs to (empty for another name).
    [[nodiscard]] static std::string_view listEnding(Queue queue) noexcept;
    [[nodiscard]] static std::string_view messageOf(Queue queue, std::string_view list) noexcept;

    static constexpr int kNameDraws = 100; // attempts to find a free name

    // A name for a return mail, "rjctfileXXXXXX", that no message in the deferred queue has.
    [[nodiscard]] static std::string newReturnName();

    // Reads the recipient file, by the descriptor of its lock where the caller has that. 0 for
    // content that cannot be used.
    [[nodiscard]] Trouble read(Recipients& into, const MessageLock* held) const;

    // --- An attempt on a message of the deferred queue ---

    // To be called before each conversation, and before a return mail: writes the list anew if
    // somebody was served since it was written, and then keeps the room for the list that follows
    // when more than one recipient is left. So no conversation begins whose outcome could not be
    // written down, and a later run does not try those again who have the mail; if a run is killed,
    // only the recipients of its last conversation may get a second copy. After a trouble the
    // message must be left alone.
    [[nodiscard]] Trouble secure(const Recipients& untried, const MailList& failed);
    void noteServed() noexcept { served_ = true; }
    [[nodiscard]] bool stuck() const noexcept { return stuck_; }

    // The end of an attempt that leaves somebody: writes the list and counts the try. The
    // recipients are gone afterwards. In trouble the old list counts.
    [[nodiscard]] Trouble rewrite(Recipients& left);

    // Writes bytes that stand for the same recipients.
    [[nodiscard]] Trouble replaceList(std::string_view bytes);

    // Deletes the message: first the text, since one without list would stay for ever. A list that
    // cannot be deleted is made to name nobody, if `head` knows what else it says.
    [[nodiscard]] Trouble remove(const Recipients* head);

    // --- A new message in the deferred queue ---

    // Writes the whole stream, from its beginning, to the new text and syncs it. EEXIST: there is
    // such a file, untouched. In any trouble nothing is left of the new one.
    [[nodiscard]] Trouble store(std::istream& text) const;

    // Moves the text of the outgoing message here and deletes its recipient file.
    [[nodiscard]] Trouble adopt(const QueuedMessage& outgoing) const;

    // Writes the recipient file behind store() or adopt(), which makes it a message. The recipients
    // are gone afterwards.
    [[nodiscard]] Trouble writeFirstList(Recipients& recipients);

    // Syncs the directory, so that new names outlive a power cut.
    [[nodiscard]] Trouble sync() const;

private:
    [[nodiscard]] Trouble keepRoom(std::size_t size);
    [[nodiscard]] Trouble write(std::string_view bytes, UniqueFd* lock);
    [[nodiscard]] bool openReplacement();
    [[nodiscard]] bool removeLeftOver() const noexcept;
    void dropTemporary() noexcept;

    Queue queue_;
    FileName text_;
    FileName list_;
    FileName temporary_;
    std::optional<FileReplacement> room_; // for the next list
    std::string bytes_;                   // of the next list; its memory is kept with the room
    UniqueFd lock_;                       // on a list that was written in this attempt
    bool served_ = false;                 // somebody who stands in the list
    bool stuck_ = false;                  // secure() failed
};

} // namespace Email
