// As whom the gateway signs in to which relay: the file that "relay-access" names, lines
//
//     host[:port] user password
//
// The host is the relay as "domain-relay" or "fallback-relay" name it, whatever its case; an
// address may stand in brackets. Without a port it is 587; 465 begins with TLS, every other one
// with STARTTLS. The password is the rest of the line, blanks within it too. Empty lines and lines
// that begin with "#" say nothing; the last line needs no line feed.
//
// The file is read once, when the run is configured. It must be a regular file of root or of our
// own user (root reads anybody's), which nobody else may change and only its group may read; a
// symbolic link is followed, since what counts is what it leads to. Whatever is wrong with it makes
// it unusable as a whole, and then no relay is used: without it nobody knows which of them must be
// signed in to, and one that must be would refuse the mail for good.
//
// Passwords stand nowhere but in the file's bytes as they were read, which are wiped in the end.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace Email {

// Overwrites what holds a secret, in a way that no compiler leaves out.
void wipe(std::string& secret) noexcept;

class RelayAccess {
public:
    static constexpr std::size_t kMaxBytes = std::size_t{64} * 1024; // of the file
    static constexpr std::size_t kMaxWord = 255;                     // of host, user and password
    static constexpr int kSubmissionPort = 587;                      // RFC 6409
    static constexpr int kTlsPort = 465;                             // RFC 8314, 3.3

    // Texts point into the bytes that the object keeps.
    struct Line {
        std::string_view host;
        int port = kSubmissionPort;
        std::string_view user;
        std::string_view password;

        [[nodiscard]] bool tlsFirst() const noexcept { return port == kTlsPort; }
    };

    RelayAccess() = default;
    ~RelayAccess();
    RelayAccess(const RelayAccess&) = delete;
    RelayAccess& operator=(const RelayAccess&) = delete;

    // Reads the file; an empty name stands for none. False with trouble() set.
    bool load(const std::string& path);
    // The same for the bytes of one.
    bool parse(std::string_view text);
    void clear() noexcept;

    // True when there is, or should be, a file.
    [[nodiscard]] bool wanted() const noexcept { return wanted_; }
    // Why it cannot be used, beginning with its name; no password is in it.
    [[nodiscard]] const std::string& trouble() const noexcept { return trouble_; }

    [[nodiscard]] const std::vector<Line>& lines() const noexcept { return lines_; }
    // The line of a relay, as the rule table names it; null when it has none.
    [[nodiscard]] const Line* find(std::string_view relay) const noexcept;

private:
    bool readFile(int fd);
    bool takeLines();
    [[nodiscard]] std::string takeLine(std::string_view line);

    bool wanted_ = false;
    std::string trouble_;
    std::vector<Line> lines_;
    std::unique_ptr<char[]> bytes_;
    std::size_t size_ = 0;
};

// The run's own, which DomainRelay::initialise() loads.
[[nodiscard]] RelayAccess& relayAccess() noexcept;

} // namespace Email
