// One key of the rule table that the mail side reads: what it holds, where its value goes, and what
// there is to say of it. The rows stand in email/site/Settings.inc.
#pragma once

#include "email/base/LowerCase.h"
#include "email/file/FileName.h"

#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>
#include <string_view>
#include <variant>

struct cfgrec;

namespace Email {

struct Setting {
    // Settings.inc says how each is read and kept.
    enum class Kind { Number, Interval, YesNo, Choice, Text, Directory, File, Words, Lines };
    // Where load() puts the value. A number, an interval (0: off), a choice (its place in the list)
    // and a switch may go to a number.
    using Target = std::variant<std::monostate, std::int32_t*, bool*, const char**, FileName*,
                                const char***, void (*)(std::int32_t)>;
    static constexpr std::int32_t kNoLimit = std::numeric_limits<std::int32_t>::max();

    const char* key;
    Kind kind;
    const char* builtIn; // as it would stand in the rule table; empty for none
    Target target;
    const char* unit;   // what a number counts, else empty
    std::int32_t least; // the sensible range of a number
    std::int32_t most;
    const char* choices; // "a|b|c", else empty
    const char* meaning; // what it is for, in a few words

    // Reads the key's first line and stores its value, or the built-in one when the key is absent.
    // A wrong number of words, or a word that is none of the choices, ends the run through
    // assert_failure(). `cfg` as for mailscanGlobals::initialise().
    void load(cfgrec* cfg) const;

    // The key of several lines is read by the unit that uses it; load() does nothing for it.
    [[nodiscard]] bool repeats() const noexcept { return kind == Kind::Lines; }
};

// Every key, in the order in which they are read; those of several lines last.
[[nodiscard]] std::span<const Setting> settings() noexcept;

// The place of a word in a list "a|b|c", whatever its case; -1 for none of them.
[[nodiscard]] constexpr std::int32_t choiceOf(std::string_view choices,
                                              std::string_view word) noexcept {
    for (std::int32_t place = 0;; ++place) {
        const std::string_view choice = choices.substr(0, choices.find('|'));
        bool same = choice.size() == word.size() && !word.empty();
        for (std::size_t i = 0; same && i < word.size(); ++i) {
            same = lowerCase(choice[i]) == lowerCase(word[i]);
        }
        if (same) {
            return place;
        }
        if (choice.size() == choices.size()) {
            return -1;
        }
        choices.remove_prefix(choice.size() + 1);
    }
}

} // namespace Email
