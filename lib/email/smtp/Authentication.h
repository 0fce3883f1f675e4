// Signing in to a server (RFC 4954) as a sequence of texts: what is said first, and what to each
// challenge. A value without a socket; SMTP's side of it is SenderSignIn.cpp.
//
// Of the mechanisms that the server offers the first of SCRAM-SHA-256, PLAIN and LOGIN is used, and
// no other when it fails: else a server could talk us out of the one that does not tell it the
// password. All three need a connection that TLS protects, to a server that was verified.
#pragma once

#include "email/site/RelayAccess.h"
#include "email/smtp/ServerExtensions.h"
#include "tls/Tls.h"

#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace Email {

class Authentication {
public:
    enum class Mechanism { Scram, Plain, Login };

    // Nothing when the server offers none that is known here.
    [[nodiscard]] static std::optional<Mechanism> best(const ServerExtensions& offered) noexcept;
    // "SCRAM-SHA-256", "PLAIN" or "LOGIN".
    [[nodiscard]] static std::string_view nameOf(Mechanism mechanism) noexcept;

    // The line must outlive this. `scram` is needed for that mechanism alone.
    Authentication(Mechanism mechanism, const RelayAccess::Line& line,
                   std::unique_ptr<SaslExchange> scram) noexcept;

    // What AUTH says: the mechanism, and the first answer where there is one before a challenge.
    // Like the texts of answer() it is secret: wipe() it.
    [[nodiscard]] std::string begin() const;

    // The line to say to a challenge, the text behind 334. Nothing when the challenge is not as it
    // must be, or there should be none: the server is not to be told more.
    [[nodiscard]] std::optional<std::string> answer(std::string_view challenge);

    // True when the server's word that we are signed in may be believed: all was said, and with
    // SCRAM the server has proven that it knows the password too.
    [[nodiscard]] bool complete() const noexcept { return complete_; }

private:
    [[nodiscard]] std::string plain() const;
    [[nodiscard]] std::optional<std::string> loginAnswer();
    [[nodiscard]] std::optional<std::string> scramAnswer(std::string_view challenge);

    Mechanism mechanism_;
    const RelayAccess::Line& line_;
    std::unique_ptr<SaslExchange> scram_;
    int answers_ = 0;
    bool complete_;
};

} // namespace Email
