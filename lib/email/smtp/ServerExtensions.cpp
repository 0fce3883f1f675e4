#include "email/smtp/ServerExtensions.h"

#include <strings.h>

#include <array>
#include <charconv>

namespace Email {

namespace {

struct Keyword {
    std::string_view name;
    bool ServerExtensions::*offered;
};

constexpr std::array kExtensions{
    Keyword{"SIZE", &ServerExtensions::size},
    Keyword{"PIPELINING", &ServerExtensions::pipelining},
    Keyword{"8BITMIME", &ServerExtensions::eightBitMime},
    Keyword{"SMTPUTF8", &ServerExtensions::smtpUtf8},
    Keyword{"STARTTLS", &ServerExtensions::startTls},
    Keyword{"ENHANCEDSTATUSCODES", &ServerExtensions::enhancedCodes},
};

constexpr std::array kMechanisms{
    Keyword{"PLAIN", &ServerExtensions::authPlain},
    Keyword{"LOGIN", &ServerExtensions::authLogin},
    Keyword{"SCRAM-SHA-256", &ServerExtensions::authScram256},
};

bool same(std::string_view a, std::string_view b) noexcept {
    return a.size() == b.size() && ::strncasecmp(a.data(), b.data(), a.size()) == 0;
}

// The next word of the text, which it is taken from. Old servers write "AUTH=" for "AUTH ".
std::string_view takeWord(std::string_view& text) noexcept {
    static constexpr std::string_view kBetween = " \t=";
    text.remove_prefix(std::min(text.find_first_not_of(kBetween), text.size()));
    const std::string_view word = text.substr(0, text.find_first_of(kBetween));
    text.remove_prefix(word.size());
    return word;
}

template<std::size_t N>
void offer(ServerExtensions& server, const std::array<Keyword, N>& known, std::string_view word) {
    for (const Keyword& keyword : known) {
        if (same(word, keyword.name)) {
            server.*keyword.offered = true;
        }
    }
}

// 0 for what is no number or too large to be a limit.
std::uint64_t limitOf(std::string_view digits) noexcept {
    std::uint64_t limit = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), limit);
    return error == std::errc{} && end == digits.data() + digits.size() ? limit : 0;
}

} // namespace

void ServerExtensions::addLine(std::string_view text) noexcept {
    // The first line is the server's name and greeting.
    if (lines++ == 0 || lines > kMaxLines) {
        lines = lines > kMaxLines ? kMaxLines : lines;
        return;
    }
    const std::string_view word = takeWord(text);
    offer(*this, kExtensions, word);
    if (same(word, "SIZE")) {
        sizeLimit = limitOf(takeWord(text));
    } else if (same(word, "AUTH")) {
        for (auto name = takeWord(text); !name.empty(); name = takeWord(text)) {
            offer(*this, kMechanisms, name);
        }
    }
}

std::string ServerExtensions::text() const {
    std::string out;
    const auto add = [&](std::string_view word, std::string_view prefix = "") {
        out.append(out.empty() ? "" : ", ").append(prefix).append(word);
    };
    for (const Keyword& keyword : kExtensions) {
        if (this->*keyword.offered) {
            add(keyword.name);
            if (keyword.offered == &ServerExtensions::size && sizeLimit != 0) {
                out += " " + std::to_string(sizeLimit);
            }
        }
    }
    for (const Keyword& keyword : kMechanisms) {
        if (this->*keyword.offered) {
            add(keyword.name, "AUTH ");
        }
    }
    return out;
}

} // namespace Email
