#include "email/site/TlsPolicy.h"

#include <strings.h>

#include <algorithm>
#include <array>

namespace Email {

namespace {

constexpr std::array kWords{"none", "may", "encrypt", "verify"};

} // namespace

std::optional<TlsLevel> tlsLevel(std::string_view word) noexcept {
    const auto found = std::ranges::find_if(kWords, [word](std::string_view known) {
        return known.size() == word.size() &&
               ::strncasecmp(known.data(), word.data(), word.size()) == 0;
    });
    if (found == kWords.end()) {
        return std::nullopt;
    }
    return static_cast<TlsLevel>(found - kWords.begin());
}

const char* tlsWord(TlsLevel level) noexcept {
    return kWords.at(static_cast<std::size_t>(level));
}

TlsLevel TlsPolicy::levelFor(const char* domain) const noexcept {
    const auto found = std::ranges::find_if(
        lines_, [domain](const auto& line) { return line.first.matches(domain); });
    return found == lines_.end() ? default_ : found->second;
}

bool TlsPolicy::wanted() const noexcept {
    return default_ != TlsLevel::None || std::ranges::any_of(lines_, [](const auto& line) {
               return line.second != TlsLevel::None;
           });
}

} // namespace Email
