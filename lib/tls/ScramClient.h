// SCRAM-SHA-256 without channel binding (RFC 5802, RFC 7677): proves to a server that we know a
// password, and has the server prove that it does too, without saying it. One exchange an object.
#pragma once

#include "tls/Tls.h"

#include <array>
#include <cstddef>
#include <string>
#include <string_view>

namespace Email {

class ScramClient final : public SaslExchange {
public:
    // Rounds that a server may ask for: fewer protect nothing (RFC 7677, 4), more would let a
    // server hold the run for seconds.
    static constexpr int kLeastRounds = 4096;
    static constexpr int kMostRounds = 1'000'000;

    // The nonce: printable characters without a comma, never used before.
    ScramClient(std::string_view user, std::string_view password, std::string_view nonce);
    ~ScramClient() override;

    [[nodiscard]] std::string first() const override;
    [[nodiscard]] std::optional<std::string> answer(std::string_view challenge) override;
    [[nodiscard]] bool accepts(std::string_view final) const override;

private:
    using Digest = std::array<unsigned char, 32>;

    bool prove(std::string_view salt, int rounds, const std::string& withoutProof,
               std::string_view challenge, Digest& proof);

    std::string bare_; // client-first-message-bare
    std::string nonce_;
    std::string password_;
    Digest serverSignature_{};
    bool answered_ = false;
};

// A nonce of 24 characters; empty when there is no randomness to be had.
[[nodiscard]] std::string newNonce();

} // namespace Email
