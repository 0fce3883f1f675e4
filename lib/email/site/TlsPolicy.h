// What protection a recipient's domain must be given on its way ("smtp-tls", "smtp-tls-policy").
#pragma once

#include "email/site/DomainRelay.h"

#include <cstdint>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

namespace Email {

// In order of strength: each promises all that the one before it does, but for the last, which is
// as strong as what the name service says of the server (Dane.h).
enum class TlsLevel : std::uint8_t {
    None,    // in the clear, also to a server that offers TLS
    May,     // TLS when the server offers it, whoever it is; in the clear when it fails
    Encrypt, // TLS or deferral, whoever the server is
    Verify,  // TLS with the server that the route names, or deferral
    Dane,    // TLS with a server that its TLSA records prove, or deferral; without such records May
};

// The level of a word ("none", "may", "encrypt", "verify", "dane"), whatever its case.
[[nodiscard]] std::optional<TlsLevel> tlsLevel(std::string_view word) noexcept;

[[nodiscard]] const char* tlsWord(TlsLevel level) noexcept;

// The administrator's levels: one for all domains, and others for patterns of domains in the
// language of "domain-relay". The first pattern added that matches decides.
class TlsPolicy {
public:
    // Reads "smtp-tls-policy" lines, a pattern and a level each, and the default. A line that is
    // not so ends the run: a guess could send in the clear what must not go so.
    void load(TlsLevel dflt, cfgrec* cfg);

    void setDefault(TlsLevel level) noexcept { default_ = level; }
    void add(const char* pattern, TlsLevel level) { lines_.emplace_back(DRinfo(pattern), level); }
    void clear() noexcept {
        lines_.clear();
        default_ = TlsLevel::None;
    }

    [[nodiscard]] TlsLevel levelFor(const char* domain) const noexcept;

    // True when some domain may get TLS.
    [[nodiscard]] bool wanted() const noexcept;
    // True when some domain has this very level.
    [[nodiscard]] bool uses(TlsLevel level) const noexcept;

private:
    TlsLevel default_ = TlsLevel::None;
    std::vector<std::pair<DRinfo, TlsLevel>> lines_;
};

// The run's policy, which mailscanGlobals::initialise() loads.
[[nodiscard]] TlsPolicy& tlsPolicy() noexcept;

} // namespace Email
