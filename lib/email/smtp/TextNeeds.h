// What a server must be able to do for a message text, found out before it is sent.
#pragma once

#include <iosfwd>
#include <string_view>

namespace Email {

struct TextNeeds {
    long long wireSize = 0; // bytes as RFC 1870 counts them: lines end in CR LF, no dots added
    bool eightBit = false;  // bytes above 127
};

// Reads the whole text from its beginning; where it cannot be read it counts as ending. The stream
// is left in whatever state that makes.
[[nodiscard]] TextNeeds textNeeds(std::istream& text);

// True for a text with bytes above 127.
[[nodiscard]] bool isEightBit(std::string_view text) noexcept;

} // namespace Email
