#include "email/spool/MailList.h"

#include <cstring>
#include <string_view>
#include <utility>

namespace {

constexpr int kFirstPermanent = 500;

std::unique_ptr<EmailAddr> detach(std::unique_ptr<EmailAddr>& link) noexcept {
    std::unique_ptr<EmailAddr> record = std::move(link);
    link = std::move(record->next);
    return record;
}

void setCode(EmailAddr& record, SMTPcode code) noexcept {
    // "No reason" leaves a record the code that it has.
    if (code != IDS_NO_REASON) {
        record.reason = code;
    }
}

} // namespace

MailList::~MailList() = default;

MailList& MailList::operator=(const MailList& other) {
    if (this != &other) {
        head_ = EmailAddr::copy(other.first());
    }
    return *this;
}

bool MailList::deferCode(int code) noexcept {
    switch (code) {
    case COMMS_FAILED:
    case DATASOURCEERROR:
    case TIMEOUTEXPIRED:
        return true;
    default:
        return code < kFirstPermanent;
    }
}

void MailList::Destroy() noexcept {
    head_.reset();
}

bool MailList::one() const noexcept {
    return head_ && !head_->next;
}

void MailList::Add(const char* text, SMTPcode code) {
    if (text != nullptr) {
        head_ = std::make_unique<EmailAddr>(text, std::move(head_), code);
    }
}

void MailList::Add(std::unique_ptr<EmailAddr> record, SMTPcode code) {
    if (!record) {
        return;
    }
    setCode(*record, code);
    // In front: so the last line of a recipient file is served first, which is the order it is
    // written back in.
    record->next = std::move(head_);
    head_ = std::move(record);
}

void MailList::Add(MailList& other, bool move, SMTPcode code) {
    if (!move) {
        for (const EmailAddr* record = other.first(); record; record = record->next.get()) {
            Add(record->text(), code == IDS_NO_REASON ? record->reason : code);
        }
        return;
    }
    std::unique_ptr<EmailAddr> chain = std::move(other.head_);
    std::unique_ptr<EmailAddr>* link = &chain;
    for (; *link; link = &(*link)->next) {
        setCode(**link, code);
    }
    // In front as a whole, in its own order.
    *link = std::move(head_);
    head_ = std::move(chain);
}

bool MailList::Remove(char* buf, SMTPcode* code) {
    const std::unique_ptr<EmailAddr> record = Remove();
    if (!record) {
        return false;
    }
    std::memcpy(buf, record->text(), record->size() + 1);
    if (code != nullptr) {
        *code = record->reason;
    }
    return true;
}

std::unique_ptr<EmailAddr> MailList::Remove() {
    return head_ ? detach(head_) : nullptr;
}

std::unique_ptr<EmailAddr> MailList::Remove(IPaddress addr) {
    return Gathering(*this, addr).next();
}

std::unique_ptr<EmailAddr> MailList::Gathering::next() {
    for (; *link_; link_ = &(*link_)->next) {
        if ((*link_)->suitableHost(addr_) && (!mayJoin_ || mayJoin_(**link_))) {
            return detach(*link_);
        }
    }
    return nullptr;
}

bool MailList::ReasonPresent(SMTPcode code) const noexcept {
    const EmailAddr* record = first();
    while (record != nullptr && record->reason != code) {
        record = record->next.get();
    }
    return record != nullptr;
}

void MailList::ExtractDeferred(MailList& other) noexcept {
    std::unique_ptr<EmailAddr> deferred;
    std::unique_ptr<EmailAddr>* tail = &deferred;
    std::unique_ptr<EmailAddr>* link = &other.head_;
    while (*link) {
        if ((*link)->leftOut || deferCode((*link)->reason)) {
            *tail = detach(*link);
            tail = &(*tail)->next;
        } else {
            link = &(*link)->next;
        }
    }
    *tail = std::move(head_);
    head_ = std::move(deferred);
}

void MailList::AllNames(char* buf) const noexcept {
    std::size_t used = 0;
    for (const EmailAddr* record = first(); record; record = record->next.get()) {
        const std::string_view name = record->text();
        const std::size_t blank = used == 0 ? 0 : 1;
        // An address is named whole or not at all.
        if (used + blank + name.size() > EmailAddr::kMaxText) {
            break;
        }
        if (blank != 0) {
            buf[used++] = ' ';
        }
        used += name.copy(buf + used, name.size());
    }
    buf[used] = '\0';
}
