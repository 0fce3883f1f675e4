// One command of the client as it stands on the wire, made without a socket.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <string_view>

namespace Email {

// Room for a command line: with its CR LF it has fewer bytes than this.
using CommandRoom = std::array<char, 1025>;

// Those that more than one place has to write in the same way.
inline constexpr const char* kRcptTo = "RCPT TO:";
inline constexpr const char* kData = "DATA";

// The command line with its ending, in `room`; `arg` may be null. Empty when it must not be sent:
// it is too long, or holds a line end, behind which another command could stand.
[[nodiscard]] inline std::string_view commandText(CommandRoom& room, std::string_view cmd,
                                                  const char* arg) noexcept {
    static constexpr std::string_view kLineEnds = "\r\n";
    const std::string_view argument = arg == nullptr ? "" : arg;
    const std::size_t length = cmd.size() + (arg == nullptr ? 0 : argument.size() + 1) + 2;
    if (length >= room.size() || cmd.find_first_of(kLineEnds) != std::string_view::npos ||
        argument.find_first_of(kLineEnds) != std::string_view::npos) {
        return {};
    }
    char* end = std::copy(cmd.begin(), cmd.end(), room.begin());
    if (arg != nullptr) {
        *end++ = ' ';
        end = std::copy(argument.begin(), argument.end(), end);
    }
    std::copy(kLineEnds.begin(), kLineEnds.end(), end);
    return {room.data(), length};
}

} // namespace Email
