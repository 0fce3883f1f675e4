// One line of the rule table, taken apart. Nothing here opens a file, logs or allocates.
//
//     who-list ":" [ "deny-" | "permit-" | "absorb-" ] keyword blank arguments newline
//
// The who-list names the services that the line is for, separated by blanks and commas; "*" is
// every service. "#" in the first column makes a comment; lines of blanks are skipped.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

// Longest line with its newline, in bytes.
inline constexpr std::size_t kRuleLineLimit = 8191;

// Why a line was rejected.
enum class CfgFault : std::uint8_t {
    TooLong,          // no newline within the limit, or none at the end of the file
    Malformed,        // no colon
    MissingParameter, // no argument after the keyword
    Misquoted,        // arguments that do not fit
};

// The fault in words: "too long", "malformed", "missing parameter", "too long or misquoted".
const char* cfg_fault_text(CfgFault fault) noexcept;

// A bit of cfgrec::flags: the prefix of the keyword.
enum CfgFlag : std::int32_t { CFG_PERMIT = 1, CFG_DENY = 2, CFG_ABSORB = 4 };

class RuleLine {
public:
    enum class Kind : std::uint8_t {
        Skipped,  // a comment, blank, or for other services
        Rejected, // see fault()
        Record,   // see flags(), keyword() and arguments()
    };

    // Takes apart the bytes of one line as read, the newline included; any bytes will do. The
    // argument text is changed in place. A line without a colon is rejected whatever service it was
    // meant for; of a line for others nothing more is checked.
    Kind parse(std::span<char> line, std::string_view service) noexcept;

    [[nodiscard]] CfgFault fault() const noexcept { return fault_; }
    [[nodiscard]] std::int32_t flags() const noexcept { return flags_; }
    // The keyword without its prefix; lives as long as the bytes given to parse().
    [[nodiscard]] std::string_view keyword() const noexcept { return keyword_; }
    // At most 255 terminated texts, valid until the next parse().
    [[nodiscard]] std::span<char* const> arguments() const noexcept {
        return {argv_.data(), argc_};
    }

private:
    Kind parseRule(std::span<char> rule) noexcept;
    void takeKeyword(std::string_view word) noexcept;
    Kind reject(CfgFault fault) noexcept;

    CfgFault fault_{};
    std::int32_t flags_ = 0;
    std::string_view keyword_;
    std::size_t argc_ = 0;
    std::array<char*, 256> argv_{};
    std::array<char, kRuleLineLimit + 1> text_{};
};
