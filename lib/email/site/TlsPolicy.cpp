#include "email/site/TlsPolicy.h"

#include "email/base/Assert.h"
#include "fwall/config.h"

#include <strings.h>

#include <algorithm>
#include <array>

namespace Email {

namespace {

constexpr std::array kWords{"none", "may", "encrypt", "verify", "dane"};

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

void TlsPolicy::load(TlsLevel dflt, cfgrec* cfg) {
    clear();
    setDefault(dflt);
    constexpr const char* kKey = "smtp-tls-policy";
    // Asked with a null list, cfg_get() would go on from where the last search stopped.
    for (cfgrec* line = cfg == nullptr ? nullptr : cfg_get(kKey, cfg); line != nullptr;
         line = cfg_next(kKey, line)) {
        const auto level = line->argc == 2 ? tlsLevel(line->argv[1]) : std::nullopt;
        if (!level) {
            assert_failure("cf->argc == 2 && tlsLevel(cf->argv[1])", "lib/email/mailscanGlobals",
                           __LINE__);
        }
        add(line->argv[0], *level);
    }
}

TlsPolicy& tlsPolicy() noexcept {
    static TlsPolicy policy;
    return policy;
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

bool TlsPolicy::uses(TlsLevel level) const noexcept {
    return default_ == level ||
           std::ranges::any_of(lines_, [level](const auto& line) { return line.second == level; });
}

} // namespace Email
