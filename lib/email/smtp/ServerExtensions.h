// What a server says it can (RFC 5321, 4.1.1.1): its answer to EHLO, line by line, as a value.
//
// A server may say anything here: a keyword that is not known, too long or malformed is passed
// over, one that is repeated counts once, and lines beyond a bound are not looked at. Nothing is
// believed that the gateway could not do without.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace Email {

struct ServerExtensions {
    static constexpr int kMaxLines = 64; // lines of an answer that are looked at

    // Takes the text of the answer's next line: what stands behind the code and its "-" or blank.
    // The first line names the server and offers nothing.
    void addLine(std::string_view text) noexcept;

    // What is offered, in the words of the documents: "SIZE 1000, STARTTLS, AUTH PLAIN".
    [[nodiscard]] std::string text() const;

    // True when the server's limit (RFC 1870) rules out a text of this many bytes.
    [[nodiscard]] bool tooLarge(long long bytes) const noexcept {
        return sizeLimit != 0 && bytes > 0 && static_cast<std::uint64_t>(bytes) > sizeLimit;
    }

    bool size = false;           // SIZE, RFC 1870
    bool pipelining = false;     // PIPELINING, RFC 2920
    bool eightBitMime = false;   // 8BITMIME, RFC 6152
    bool smtpUtf8 = false;       // SMTPUTF8, RFC 6531
    bool startTls = false;       // STARTTLS, RFC 3207
    bool enhancedCodes = false;  // ENHANCEDSTATUSCODES, RFC 2034
    bool authPlain = false;      // AUTH PLAIN, RFC 4616
    bool authLogin = false;      // AUTH LOGIN
    bool authScram256 = false;   // AUTH SCRAM-SHA-256, RFC 7677
    std::uint64_t sizeLimit = 0; // bytes; 0: none, or none that can be read
    int lines = 0;               // taken so far
};

} // namespace Email
