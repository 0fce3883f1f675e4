#include "tls/ScramClient.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

#include <charconv>
#include <vector>

namespace Email {

namespace {

using Digest = std::array<unsigned char, 32>;

const unsigned char* bytesOf(std::string_view text) noexcept {
    return reinterpret_cast<const unsigned char*>(text.data());
}

std::string encode(const unsigned char* data, std::size_t size) {
    std::vector<unsigned char> out(4 * ((size + 2) / 3) + 1);
    const int length = EVP_EncodeBlock(out.data(), data, static_cast<int>(size));
    return {out.begin(), out.begin() + length};
}

// Nothing for what is no base64. The padding's place is filled with zeros by the library.
std::optional<std::string> decode(std::string_view text) {
    std::vector<unsigned char> out(text.size() + 1);
    const int length = EVP_DecodeBlock(out.data(), bytesOf(text), static_cast<int>(text.size()));
    const int padding = text.ends_with("==") ? 2 : static_cast<int>(text.ends_with('='));
    if (length < padding) {
        return std::nullopt;
    }
    return std::string(out.begin(), out.begin() + length - padding);
}

bool mac(const Digest& key, std::string_view text, Digest& out) noexcept {
    unsigned int size = 0;
    return HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()), bytesOf(text), text.size(),
                out.data(), &size) != nullptr;
}

bool hash(const Digest& in, Digest& out) noexcept {
    return EVP_Digest(in.data(), in.size(), out.data(), nullptr, EVP_sha256(), nullptr) == 1;
}

// "=" and "," mean something in a message.
std::string escaped(std::string_view user) {
    std::string out;
    for (const char c : user) {
        out += c == '=' ? std::string("=3D") : c == ',' ? std::string("=2C") : std::string(1, c);
    }
    return out;
}

// The value of the next attribute, which must have this letter; it and its comma are taken off.
std::optional<std::string_view> takeAttribute(std::string_view& text, char letter) noexcept {
    if (text.size() < 2 || text[0] != letter || text[1] != '=') {
        return std::nullopt;
    }
    const std::string_view value = text.substr(2, text.find(',') - 2);
    text.remove_prefix(std::min(text.size(), value.size() + 3));
    return value;
}

int numberOf(std::string_view digits) noexcept {
    int number = 0;
    const char* const end = digits.data() + digits.size();
    const auto [stop, error] = std::from_chars(digits.data(), end, number);
    return error == std::errc{} && stop == end ? number : 0;
}

} // namespace

std::string newNonce() {
    std::array<unsigned char, 18> random{};
    const bool good = RAND_bytes(random.data(), static_cast<int>(random.size())) == 1;
    return good ? encode(random.data(), random.size()) : std::string();
}

ScramClient::ScramClient(std::string_view user, std::string_view password, std::string_view nonce)
    : bare_("n=" + escaped(user) + ",r=" + std::string(nonce)), nonce_(nonce), password_(password) {
}

ScramClient::~ScramClient() {
    OPENSSL_cleanse(password_.data(), password_.size());
}

std::string ScramClient::first() const {
    return "n,," + bare_;
}

// The salted password and the keys that follow from it live no longer than this call.
bool ScramClient::prove(std::string_view salt, int rounds, const std::string& withoutProof,
                        std::string_view challenge, Digest& proof) {
    const std::string message = bare_ + "," + std::string(challenge) + "," + withoutProof;
    Digest salted{}, clientKey{}, storedKey{}, signature{}, serverKey{};
    const bool good =
        PKCS5_PBKDF2_HMAC(password_.data(), static_cast<int>(password_.size()), bytesOf(salt),
                          static_cast<int>(salt.size()), rounds, EVP_sha256(),
                          static_cast<int>(salted.size()), salted.data()) == 1 &&
        mac(salted, "Client Key", clientKey) && hash(clientKey, storedKey) &&
        mac(storedKey, message, signature) && mac(salted, "Server Key", serverKey) &&
        mac(serverKey, message, serverSignature_);
    for (std::size_t i = 0; i < proof.size(); ++i) {
        proof[i] = clientKey[i] ^ signature[i];
    }
    for (Digest* secret : {&salted, &clientKey, &storedKey, &serverKey}) {
        OPENSSL_cleanse(secret->data(), secret->size());
    }
    return good;
}

std::optional<std::string> ScramClient::answer(std::string_view challenge) {
    std::string_view rest = challenge;
    const auto nonce = takeAttribute(rest, 'r');
    const auto salt = nonce ? takeAttribute(rest, 's') : std::nullopt;
    const auto rounds = salt ? takeAttribute(rest, 'i') : std::nullopt;
    if (!rounds || nonce_.empty() || !nonce->starts_with(nonce_) ||
        nonce->size() == nonce_.size()) {
        return std::nullopt;
    }
    const int number = numberOf(*rounds);
    const auto saltBytes = decode(*salt);
    if (number < kLeastRounds || number > kMostRounds || !saltBytes || saltBytes->empty()) {
        return std::nullopt;
    }
    const std::string withoutProof = "c=biws,r=" + std::string(*nonce);
    Digest proof{};
    answered_ = prove(*saltBytes, number, withoutProof, challenge, proof);
    if (!answered_) {
        return std::nullopt;
    }
    return withoutProof + ",p=" + encode(proof.data(), proof.size());
}

bool ScramClient::accepts(std::string_view final) const {
    const auto value = takeAttribute(final, 'v');
    const auto signature = value ? decode(*value) : std::nullopt;
    return answered_ && signature && signature->size() == serverSignature_.size() &&
           CRYPTO_memcmp(signature->data(), serverSignature_.data(), serverSignature_.size()) == 0;
}

} // namespace Email
