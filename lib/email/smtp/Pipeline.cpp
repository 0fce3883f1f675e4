#include "email/smtp/Pipeline.h"

#include <utility>

namespace Email {

void Pipeline::plan(std::vector<const char*> recipients) {
    std::erase_if(recipients, [this](const char* recipient) {
        return commandText(room_, kRcptTo, recipient).empty();
    });
    *this = {};
    recipients_ = std::move(recipients);
    active_ = true;
}

// MAIL is not known here: it is due first, and with what the client then says.
std::string_view Pipeline::command(std::size_t number) noexcept {
    return number + 1 == commands() ? commandText(room_, kData, nullptr)
                                    : commandText(room_, kRcptTo, recipients_[number - 1]);
}

std::optional<std::string_view> Pipeline::due(std::string_view line) {
    if (!active_) {
        return line;
    }
    if (ahead()) {
        const bool same = command(due_) == line;
        due_ += static_cast<std::size_t>(same);
        return same ? std::optional(std::string_view()) : std::nullopt;
    }
    if (due_ == commands() || (due_ > 0 && command(due_) != line)) {
        return line;
    }
    window_ = line;
    written_ = ++due_;
    while (written_ < commands() && written_ - due_ + 1 < kWindow) {
        const std::string_view next = command(written_);
        if (window_.size() + next.size() > kWindowBytes) {
            break;
        }
        window_ += next;
        ++written_;
    }
    return window_;
}

} // namespace Email
