#include "email/site/RelayAccess.h"

#include "fwall/UniqueFd.h"

#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <system_error>

namespace Email {

namespace {

constexpr std::string_view kBlanks = " \t";
constexpr int kMaxPort = 65535;
constexpr const char* kTooLarge = "it is too large";
constexpr mode_t kForbidden = S_IWGRP | S_IRWXO;

std::string errorWords() {
    return std::generic_category().message(errno);
}

std::string_view withoutBlanks(std::string_view text) noexcept {
    text.remove_prefix(std::min(text.find_first_not_of(kBlanks), text.size()));
    return text.substr(0, text.find_last_not_of(kBlanks) + 1);
}

std::string_view takeWord(std::string_view& text) noexcept {
    text = withoutBlanks(text);
    const std::string_view word = text.substr(0, text.find_first_of(kBlanks));
    text = withoutBlanks(text.substr(word.size()));
    return word;
}

// What is compared of a relay's name. All at either end goes, so that a name that is bare already
// stays as it is: two lines for one host could else pass for two hosts.
std::string_view bareName(std::string_view name) noexcept {
    name.remove_prefix(std::min(name.find_first_not_of('['), name.size()));
    return name.substr(0, name.find_last_not_of("].") + 1);
}

bool takePort(std::string_view& host, int& port) noexcept {
    const std::size_t colon = host.find(':');
    if (colon == std::string_view::npos) {
        return true;
    }
    const std::string_view digits = host.substr(colon + 1);
    const char* const end = digits.data() + digits.size();
    const auto [stop, error] = std::from_chars(digits.data(), end, port);
    host = host.substr(0, colon);
    return error == std::errc{} && stop == end && port >= 1 && port <= kMaxPort;
}

bool fits(std::string_view word) noexcept {
    return !word.empty() && word.size() <= RelayAccess::kMaxWord;
}

// Bytes from 128 on may be part of a name or password in UTF-8.
bool isControl(char c) noexcept {
    const auto byte = static_cast<unsigned char>(c);
    return (byte < 0x20 && c != '\t') || byte == 0x7f;
}

// Empty when a file of this kind may hold secrets, else why not.
std::string refusal(const struct stat& file) {
    if (!S_ISREG(file.st_mode)) {
        return "not a regular file";
    }
    // Root may read for the walkers' user what belongs to that.
    if (file.st_uid != 0 && ::geteuid() != 0 && file.st_uid != ::geteuid()) {
        return "it belongs neither to root nor to the user of this run";
    }
    if ((file.st_mode & kForbidden) != 0) {
        return "others may read or change it (it needs mode 640 or less)";
    }
    return file.st_size > static_cast<off_t>(RelayAccess::kMaxBytes) ? kTooLarge : "";
}

} // namespace

void wipe(std::string& secret) noexcept {
    ::explicit_bzero(secret.data(), secret.size());
    secret.clear();
}

RelayAccess::~RelayAccess() {
    clear();
}

void RelayAccess::clear() noexcept {
    lines_.clear();
    trouble_.clear();
    wanted_ = false;
    if (bytes_ != nullptr) {
        ::explicit_bzero(bytes_.get(), size_);
    }
    bytes_.reset();
    size_ = 0;
}

bool RelayAccess::load(const std::string& path) {
    clear();
    if (path.empty()) {
        return true;
    }
    wanted_ = true;
    // Opening a FIFO would wait for its writer.
    const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (!file.valid()) {
        trouble_ = errorWords();
    } else if (readFile(file.get())) {
        takeLines();
    }
    if (!trouble_.empty()) {
        trouble_.insert(0, path + ": ");
    }
    return trouble_.empty();
}

// Whoever may change the file may do so meanwhile: it is read up to the bound, whatever its size.
bool RelayAccess::readFile(int fd) {
    struct stat file {};
    trouble_ = ::fstat(fd, &file) == 0 ? refusal(file) : errorWords();
    if (!trouble_.empty()) {
        return false;
    }
    constexpr std::size_t kRoom = kMaxBytes + 1;
    bytes_ = std::make_unique<char[]>(kRoom);
    ssize_t got = 0;
    do {
        got = ::read(fd, bytes_.get() + size_, kRoom - size_);
        size_ += got > 0 ? static_cast<std::size_t>(got) : 0;
    } while (got > 0 || (got < 0 && errno == EINTR));
    trouble_ = got < 0 ? errorWords() : size_ > kMaxBytes ? kTooLarge : "";
    return trouble_.empty();
}

bool RelayAccess::parse(std::string_view text) {
    clear();
    wanted_ = true;
    size_ = text.size();
    bytes_ = std::make_unique<char[]>(size_);
    std::ranges::copy(text, bytes_.get());
    return takeLines();
}

bool RelayAccess::takeLines() {
    std::string_view rest(bytes_.get(), size_);
    for (int number = 1; !rest.empty(); ++number) {
        const std::string_view line = rest.substr(0, rest.find('\n'));
        rest.remove_prefix(std::min(rest.size(), line.size() + 1));
        if (const std::string wrong = takeLine(line); !wrong.empty()) {
            trouble_ = "line " + std::to_string(number) + ": " + wrong;
            lines_.clear();
            return false;
        }
    }
    return true;
}

// Empty when the line is as it must be. What is wrong is told without the line's own words: any of
// them may be a password.
std::string RelayAccess::takeLine(std::string_view line) {
    if (std::ranges::any_of(line, isControl)) {
        return "a control character";
    }
    Line taken;
    std::string_view host = takeWord(line);
    if (host.empty() || host.starts_with('#')) {
        return {};
    }
    taken.user = takeWord(line);
    taken.password = line;
    const bool port = takePort(host, taken.port);
    taken.host = bareName(host);
    if (!port || !fits(taken.host) || !fits(taken.user) || !fits(taken.password)) {
        return "not of the form host[:port] user password";
    }
    if (find(taken.host) != nullptr) {
        return "a second one for the same host";
    }
    lines_.push_back(taken);
    return {};
}

const RelayAccess::Line* RelayAccess::find(std::string_view relay) const noexcept {
    const std::string_view name = bareName(relay);
    const auto found = std::ranges::find_if(lines_, [name](const Line& line) {
        return line.host.size() == name.size() &&
               ::strncasecmp(line.host.data(), name.data(), name.size()) == 0;
    });
    return found == lines_.end() ? nullptr : &*found;
}

RelayAccess& relayAccess() noexcept {
    static RelayAccess access;
    return access;
}

} // namespace Email
