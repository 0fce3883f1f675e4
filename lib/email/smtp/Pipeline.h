// Commands that are written before the replies to earlier ones have come (RFC 2920): MAIL, every
// RCPT and DATA of a conversation. Works on memory, so that it needs no socket.
//
// The client goes on command by command, as with a server that takes one at a time: for each it
// asks here what is to be written, and reads one reply. The first command brings those behind it
// along in one write; when a later one is due it is on the wire already, and only its reply is
// read. So codes, lists and order of events come about as they always did.
//
// Not everything goes ahead at once: a server that does not read while it cannot send would make
// both sides wait. A window of commands is small enough for any socket's buffers, and the next one
// is written when the replies to all of it were read.
#pragma once

#include "email/smtp/CommandText.h"

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Email {

class Pipeline {
public:
    static constexpr std::size_t kWindow = 100;       // commands
    static constexpr std::size_t kWindowBytes = 8192; // and bytes, whichever is reached first

    // A conversation about these recipients, in this order. Those whose command cannot be sent are
    // passed over, as the client does. The texts must stay where they are until the plan is gone.
    void plan(std::vector<const char*> recipients);

    // True once a plan was made: replies may be under way that nobody has asked for yet.
    [[nodiscard]] bool active() const noexcept { return active_; }

    // What is to be written now that this command is due: all of a window, or nothing when it is on
    // the wire. The command alone when there is no plan for it. No value when another one is on the
    // wire in its place: the conversation cannot go on. Valid until the next call.
    std::optional<std::string_view> due(std::string_view line);

    // Commands on the wire that were not due yet, and whether the `number`th of them, from 0, is
    // DATA.
    [[nodiscard]] std::size_t countAhead() const noexcept { return written_ - due_; }
    [[nodiscard]] bool ahead() const noexcept { return countAhead() != 0; }
    [[nodiscard]] bool isData(std::size_t number) const noexcept {
        return due_ + number + 1 == commands();
    }

    // The next command ahead counts as due without being asked for; true when it is DATA.
    bool skip() noexcept { return ++due_ == commands(); }

private:
    [[nodiscard]] std::size_t commands() const noexcept { return recipients_.size() + 2; }
    std::string_view command(std::size_t number) noexcept;

    bool active_ = false;
    std::vector<const char*> recipients_;
    std::size_t due_ = 0;     // commands that were asked for; MAIL is the first
    std::size_t written_ = 0; // commands on the wire
    std::string window_;
    CommandRoom room_{};
};

} // namespace Email
