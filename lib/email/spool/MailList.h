// An owning list of recipients with the result codes of their latest attempts.
#pragma once

#include "email/base/SMTPcode.h"
#include "email/spool/EmailAddr.h"

#include <functional>
#include <memory>
#include <utility>

class MailList {
public:
    MailList() noexcept = default;
    virtual ~MailList();
    MailList(const MailList&) = delete;
    // Empties this list and makes a deep copy of the other, in order.
    MailList& operator=(const MailList& other);

    // True when a recipient with this code is to be kept for a later attempt: the codes of 499 and
    // below, and 1001, 1005 and 1006.
    [[nodiscard]] static bool deferCode(int code) noexcept;

    void Destroy() noexcept;
    [[nodiscard]] bool IsEmpty() const noexcept { return head_ == nullptr; }
    [[nodiscard]] bool one() const noexcept;

    // Puts a new record at the head; nothing for a null text.
    void Add(const char* text, SMTPcode code);

    // Puts the record at the head. -1 leaves its own code. Nothing for null.
    void Add(std::unique_ptr<EmailAddr> record, SMTPcode code);

    // move: the other's whole chain comes, in its order, in front of this list's; the other is left
    // empty. Else its records are copied to the head one by one (so they end up reversed). -1
    // leaves each record's own code.
    void Add(MailList& other, bool move, SMTPcode code);

    // Takes the head off: its address into `buf` (EmailAddr::kTextSize bytes) and its code through
    // `code` unless null. False, with nothing written, when the list is empty.
    bool Remove(char* buf, SMTPcode* code);
    std::unique_ptr<EmailAddr> Remove();

    // Takes off the first record that the server at `addr` may serve; null when there is none.
    std::unique_ptr<EmailAddr> Remove(IPaddress addr);

    // Takes suitable records off one after another, asking each record only once: a record passed
    // over is not asked again by the same gathering. The list must not be changed by others
    // meanwhile.
    class Gathering {
    public:
        // With `mayJoin`, only records for which that holds.
        using Judge = std::function<bool(const EmailAddr&)>;
        Gathering(MailList& list, IPaddress addr, Judge mayJoin = nullptr) noexcept
            : link_(&list.head_), addr_(addr), mayJoin_(std::move(mayJoin)) {}
        std::unique_ptr<EmailAddr> next();

    private:
        std::unique_ptr<EmailAddr>* link_;
        IPaddress addr_;
        Judge mayJoin_;
    };

    [[nodiscard]] bool ReasonPresent(SMTPcode code) const noexcept;

    // Moves every record with a deferrable code, or left out, from `other` to the front of this
    // list; relative order is kept on both sides.
    void ExtractDeferred(MailList& other) noexcept;

    // Writes the addresses, head first, joined by single blanks, to `buf` (EmailAddr::kTextSize
    // bytes); ends before the first that does not fit.
    void AllNames(char* buf) const noexcept;

    // Calls `action` with each record, head first.
    template<typename Action>
    void forEach(Action action) {
        for (EmailAddr* record = head_.get(); record != nullptr; record = record->next.get()) {
            action(*record);
        }
    }

    // The head record, for walking along `next`; null when empty.
    [[nodiscard]] const EmailAddr* first() const noexcept { return head_.get(); }

private:
    std::unique_ptr<EmailAddr> head_;
};
