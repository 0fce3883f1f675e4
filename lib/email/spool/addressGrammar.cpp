#include "email/spool/addressGrammar.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <string_view>

namespace Email {
namespace {

enum CharClass : std::uint8_t {
    ILLEGAL,
    DOMAIN,
    DOMAINLT,
    SIMPLE,
    UNQUOTED,
    QUOTED,
    DOUBLEQ,
    ESCAPEC,
};

using CharTable = std::array<CharClass, 256>;

constexpr bool isAlphanumeric(char c) noexcept {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

constexpr void classify(CharTable& table, std::string_view chars, CharClass cls) {
    for (const char c : chars) {
        table[static_cast<unsigned char>(c)] = cls;
    }
}

constexpr CharTable makeTable() {
    CharTable table{};
    for (std::size_t i = 0; i < table.size(); ++i) {
        table[i] = i >= 0x80 ? QUOTED : ILLEGAL;
        if (i < 0x80 && isAlphanumeric(static_cast<char>(i))) {
            table[i] = DOMAIN;
        }
    }
    classify(table, "-.", DOMAIN);
    classify(table, ",@[]", DOMAINLT);
    classify(table, "#$&+=_", SIMPLE);
    classify(table, "!%'*/?^`{|}~", UNQUOTED);
    classify(table, "\t ():;<>", QUOTED);
    classify(table, "\"", DOUBLEQ);
    classify(table, "\\", ESCAPEC);
    return table;
}

constexpr CharTable charCategory = makeTable();

CharClass classOf(char c) noexcept {
    return charCategory[static_cast<unsigned char>(c)];
}

bool isSimpleLocal(std::string_view text) noexcept {
    return !text.empty() && isAlphanumeric(text.front()) &&
           std::ranges::all_of(text.substr(1),
                               [](char c) { return classOf(c) == DOMAIN || classOf(c) == SIMPLE; });
}

bool isRoute(std::string_view text) noexcept {
    return !text.empty() && text.front() == '@' && std::ranges::all_of(text.substr(1), [](char c) {
        return classOf(c) == DOMAIN || classOf(c) == DOMAINLT;
    });
}

bool allAllowed(std::string_view text, bool quoted) noexcept {
    for (std::size_t i = 0; i < text.size(); ++i) {
        const CharClass cls = classOf(text[i]);
        if (cls == ESCAPEC) {
            // A backslash quotes the next character, so there must be one.
            if (++i == text.size() || classOf(text[i]) == ILLEGAL) {
                return false;
            }
        } else if (cls == ILLEGAL || cls == DOUBLEQ ||
                   (!quoted && (cls == DOMAINLT || cls == QUOTED))) {
            return false;
        }
    }
    return true;
}

bool isLocal(std::string_view text) noexcept {
    if (text.empty() || text.front() != '"') {
        return !text.empty() && allAllowed(text, false);
    }
    return text.size() >= 2 && text.back() == '"' &&
           allAllowed(text.substr(1, text.size() - 2), true);
}

bool isLiteral(std::string_view text) noexcept {
    constexpr std::size_t kShortest = 9; // "[1.2.3.4]"; the dots' places are not examined
    return text.size() >= kShortest && text.back() == ']' &&
           text.substr(1, text.size() - 2).find_first_not_of("0123456789.") ==
               std::string_view::npos;
}

bool isDomain(std::string_view text, bool any) noexcept {
    if (text.starts_with('[')) {
        return isLiteral(text);
    }
    return !text.empty() && isAlphanumeric(text.front()) &&
           (any || std::ranges::all_of(text, [](char c) { return classOf(c) == DOMAIN; }));
}

// "local@domain", split at `at`.
bool isMailbox(std::string_view text, std::size_t at, bool anyDomain) noexcept {
    return at != std::string_view::npos && isLocal(text.substr(0, at)) &&
           isDomain(text.substr(at + 1), anyDomain);
}

// A route, a colon and a mailbox; returns the colon's place, or npos.
std::size_t routeEnd(std::string_view text, bool anyDomain) noexcept {
    const std::size_t colon = text.find(':');
    if (colon == std::string_view::npos || !isRoute(text.substr(0, colon))) {
        return std::string_view::npos;
    }
    const std::string_view mailbox = text.substr(colon + 1);
    return isMailbox(mailbox, mailbox.rfind('@'), anyDomain) ? colon : std::string_view::npos;
}

char* acceptedBracketed(char* text, std::string_view inside, bool allowNull,
                        bool anyDomain) noexcept {
    if (inside.find('@') == std::string_view::npos) {
        return inside.empty() && allowNull ? text : nullptr;
    }
    if (inside.front() != '@') {
        return isMailbox(inside, inside.rfind('@'), anyDomain) ? text : nullptr;
    }
    const std::size_t colon = routeEnd(inside, anyDomain);
    if (colon == std::string_view::npos) {
        return nullptr;
    }
    char* const mailbox = text + 1 + colon;
    // A source route is dropped (RFC 5321, appendix C): the address begins where the colon was.
    *mailbox = '<';
    return mailbox;
}

} // namespace

char* acceptedAddress(char* text, bool allowNull, bool anyDomain) noexcept {
    const std::string_view whole = text;
    if (!whole.starts_with('<')) {
        // Without brackets only a plain address will do: no quotes, no route.
        const std::size_t at = whole.find('@');
        return at != std::string_view::npos && isSimpleLocal(whole.substr(0, at)) &&
                       isDomain(whole.substr(at + 1), anyDomain)
                   ? text
                   : nullptr;
    }
    const std::size_t close = whole.rfind('>');
    if (close == std::string_view::npos) {
        return nullptr;
    }
    text[close + 1] = '\0';
    return acceptedBracketed(text, whole.substr(1, close - 1), allowNull, anyDomain);
}

} // namespace Email
