#include "email/smtp/Authentication.h"

#include "email/base/Base64.h"

#include <array>
#include <utility>

namespace Email {

namespace {

struct Known {
    std::string_view name;
    bool ServerExtensions::*offered;
};

// In the order of Mechanism, which is that of preference.
constexpr std::array kKnown{Known{"SCRAM-SHA-256", &ServerExtensions::authScram256},
                            Known{"PLAIN", &ServerExtensions::authPlain},
                            Known{"LOGIN", &ServerExtensions::authLogin}};

} // namespace

std::optional<Authentication::Mechanism>
Authentication::best(const ServerExtensions& offered) noexcept {
    for (std::size_t i = 0; i < kKnown.size(); ++i) {
        if (offered.*kKnown.at(i).offered) {
            return static_cast<Mechanism>(i);
        }
    }
    return std::nullopt;
}

std::string_view Authentication::nameOf(Mechanism mechanism) noexcept {
    return kKnown.at(static_cast<std::size_t>(mechanism)).name;
}

Authentication::Authentication(Mechanism mechanism, const RelayAccess::Line& line,
                               std::unique_ptr<SaslExchange> scram) noexcept
    : mechanism_(mechanism), line_(line), scram_(std::move(scram)),
      complete_(mechanism == Mechanism::Plain) {}

// RFC 4616: nobody else to act for, the user, the password.
std::string Authentication::plain() const {
    std::string message;
    message.reserve(line_.user.size() + line_.password.size() + 2);
    message.append(1, '\0').append(line_.user).append(1, '\0').append(line_.password);
    std::string text = toBase64(message);
    wipe(message);
    return text;
}

std::string Authentication::begin() const {
    std::string text(nameOf(mechanism_));
    if (mechanism_ != Mechanism::Login) {
        std::string first = mechanism_ == Mechanism::Plain ? plain() : toBase64(scram_->first());
        text.reserve(text.size() + first.size() + 1); // at once, or a part of it stays in memory
        text.append(1, ' ').append(first);
        wipe(first);
    }
    return text;
}

std::optional<std::string> Authentication::answer(std::string_view challenge) {
    if (mechanism_ == Mechanism::Plain) { // all was said
        return std::nullopt;
    }
    return mechanism_ == Mechanism::Login ? loginAnswer() : scramAnswer(challenge);
}

// What the challenges of LOGIN say differs from server to server: the first asks for the user, the
// second for the password.
std::optional<std::string> Authentication::loginAnswer() {
    if (++answers_ > 2) {
        return std::nullopt;
    }
    complete_ = answers_ == 2;
    return toBase64(complete_ ? line_.password : line_.user);
}

std::optional<std::string> Authentication::scramAnswer(std::string_view challenge) {
    const auto words = fromBase64(challenge);
    if (!words || ++answers_ > 2) {
        return std::nullopt;
    }
    if (answers_ == 1) {
        const auto proof = scram_->answer(*words);
        return proof ? std::optional<std::string>(toBase64(*proof)) : std::nullopt;
    }
    complete_ = scram_->accepts(*words);
    return complete_ ? std::optional<std::string>(std::string()) : std::nullopt;
}

} // namespace Email
