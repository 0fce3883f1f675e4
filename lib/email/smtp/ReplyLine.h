// One line of a server's reply (RFC 5321, 4.2.1), judged without a socket.
#pragma once

#include <cstdlib>
#include <optional>
#include <string_view>

namespace Email {

struct ReplyLine {
    int number;     // of the first three characters, as strtol() reads them: not range-checked
    bool continues; // the fourth character is "-": more lines of this reply follow
};

// Nothing when the line has fewer than four characters. A bare "250" is therefore unreadable: the
// gateway has never taken it for a reply, and a server that sends it is tried again later.
[[nodiscard]] inline std::optional<ReplyLine> parseReplyLine(std::string_view line) noexcept {
    if (line.size() < 4) {
        return std::nullopt;
    }
    const char digits[] = {line[0], line[1], line[2], '\0'};
    return ReplyLine{static_cast<int>(std::strtol(digits, nullptr, 10)), line[3] == '-'};
}

} // namespace Email
