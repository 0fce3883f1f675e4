#include "email/site/MxAnswer.h"

#include "email/site/Resolver.h"

#include <arpa/nameser.h>
#include <strings.h>

#include <algorithm>
#include <array>
#include <cstring>

namespace Email {

namespace {

constexpr std::size_t kHeaderSize = 12;
constexpr std::ptrdiff_t kQuestionTail = 4; // type and class
constexpr std::ptrdiff_t kRecordFixed = 10; // type, class, time to live, data length

// A walk over a message that ends at the first surprise.
class Walk {
public:
    explicit Walk(std::span<const unsigned char> message) noexcept
        : message_(message), at_(message.data() + kHeaderSize) {}

    bool name(std::string& out) {
        std::array<char, Resolver::kNameSize> text{};
        if (!Resolver::expand(text.data(), message_.data(), static_cast<int>(message_.size()),
                              at_)) {
            return false;
        }
        out = text.data();
        return true;
    }
    [[nodiscard]] bool has(std::ptrdiff_t bytes) const noexcept { return left() >= bytes; }
    int number() noexcept { return Resolver::getShort(at_); } // of two bytes that are there
    void skip(std::ptrdiff_t bytes) noexcept { at_ += bytes; }
    [[nodiscard]] std::ptrdiff_t left() const noexcept {
        return message_.data() + message_.size() - at_;
    }

private:
    std::span<const unsigned char> message_;
    const unsigned char* at_;
};

// One record; an exchanger is appended. False at a surprise.
bool readRecord(Walk& walk, std::vector<Exchanger>& exchangers) {
    std::string owner;
    if (!walk.name(owner) || !walk.has(kRecordFixed)) {
        return false;
    }
    const int type = walk.number();
    const int klass = walk.number();
    walk.skip(4);
    const std::ptrdiff_t length = walk.number();
    if (!walk.has(length)) {
        return false;
    }
    if (type != ns_t_mx || klass != ns_c_in) {
        walk.skip(length);
        return true;
    }
    const std::ptrdiff_t behind = walk.left() - length;
    Exchanger exchanger;
    if (length < 3) {
        return false;
    }
    exchanger.preference = walk.number();
    if (!walk.name(exchanger.name) || walk.left() != behind) {
        return false;
    }
    if (exchanger.name.ends_with('.')) {
        exchanger.name.pop_back();
    }
    exchangers.push_back(std::move(exchanger));
    return true;
}

bool sameName(const std::string& a, const std::string& b) noexcept {
    return ::strcasecmp(a.c_str(), b.c_str()) == 0;
}

} // namespace

std::optional<std::vector<Exchanger>> readExchangers(std::span<const unsigned char> message) {
    std::vector<Exchanger> exchangers;
    std::string question;
    if (message.size() <= kHeaderSize || message.size() > NS_MAXMSG) {
        return std::nullopt;
    }
    const int records = message[6] << 8 | message[7];
    Walk walk(message);
    if (!walk.name(question) || !walk.has(kQuestionTail)) {
        return std::nullopt;
    }
    walk.skip(kQuestionTail);
    for (int i = 0; i < records && exchangers.size() < kMostExchangers; ++i) {
        if (!readRecord(walk, exchangers)) {
            return std::nullopt;
        }
    }
    return exchangers;
}

bool isNullMx(const std::vector<Exchanger>& exchangers) noexcept {
    return exchangers.size() == 1 && exchangers.front().name.empty();
}

void orderExchangers(std::vector<Exchanger>& exchangers, std::minstd_rand& chance,
                     const std::string& hostName) {
    std::erase_if(exchangers, [](const Exchanger& e) { return e.name.empty(); });
    std::ranges::shuffle(exchangers, chance);
    std::ranges::stable_sort(exchangers, {}, &Exchanger::preference);
    const auto self = std::ranges::find_if(
        exchangers, [&](const Exchanger& exchanger) { return sameName(exchanger.name, hostName); });
    if (self != exchangers.end()) {
        const int limit = self->preference;
        std::erase_if(exchangers, [limit](const Exchanger& e) { return e.preference >= limit; });
    }
}

bool cannotBeForeign(IPaddress address, std::span<const IPaddress> own) noexcept {
    std::array<unsigned char, 4> bytes{};
    std::memcpy(bytes.data(), &address.value, bytes.size());
    return bytes[0] == 0 || bytes[0] == 127 || std::ranges::find(own, address) != own.end();
}

} // namespace Email
