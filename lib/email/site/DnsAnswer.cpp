#include "email/site/DnsAnswer.h"

#include "email/site/Resolver.h"

#include <arpa/nameser.h>

#include <array>
#include <utility>

namespace Email {

namespace {

constexpr std::size_t kHeaderSize = 12;
constexpr std::ptrdiff_t kQuestionTail = 4; // type and class
constexpr std::ptrdiff_t kRecordFixed = 10; // type, class, time to live, data length
constexpr unsigned kValidated = 0x20;       // AD, in the header's fourth byte

// Moves `at` behind the name there.
std::optional<std::string> expandAt(std::span<const unsigned char> message,
                                    const unsigned char*& at) {
    std::array<char, Resolver::kNameSize> text{};
    if (!Resolver::expand(text.data(), message.data(), static_cast<int>(message.size()), at)) {
        return std::nullopt;
    }
    std::string name = text.data();
    if (name.ends_with('.')) {
        name.pop_back();
    }
    return name;
}

// One record at `at`, which moves behind it; `klass` is its class.
std::optional<DnsRecord> readRecord(std::span<const unsigned char> message,
                                    const unsigned char*& at, int& klass) {
    const unsigned char* const end = message.data() + message.size();
    auto owner = expandAt(message, at);
    if (!owner || end - at < kRecordFixed) {
        return std::nullopt;
    }
    DnsRecord record{std::move(*owner), Resolver::getShort(at), {}};
    klass = Resolver::getShort(at);
    Resolver::getLong(at); // how long it may be kept is the resolver's business
    const std::ptrdiff_t length = Resolver::getShort(at);
    if (end - at < length) {
        return std::nullopt;
    }
    record.data = {at, static_cast<std::size_t>(length)};
    at += length;
    return record;
}

} // namespace

std::optional<std::vector<DnsRecord>> readAnswer(std::span<const unsigned char> message) {
    if (message.size() <= kHeaderSize || message.size() > NS_MAXMSG) {
        return std::nullopt;
    }
    const int count = message[6] << 8 | message[7];
    const unsigned char* at = message.data() + kHeaderSize;
    if (!expandAt(message, at) || message.data() + message.size() - at < kQuestionTail) {
        return std::nullopt;
    }
    at += kQuestionTail;
    std::vector<DnsRecord> records;
    for (int i = 0; i < count && records.size() < kMostRecords; ++i) {
        int klass = 0;
        auto record = readRecord(message, at, klass);
        if (!record) {
            return std::nullopt;
        }
        if (klass == ns_c_in) {
            records.push_back(std::move(*record));
        }
    }
    return records;
}

std::optional<std::string> nameIn(std::span<const unsigned char> message, const DnsRecord& record,
                                  std::size_t offset) {
    if (record.data.size() <= offset) {
        return std::nullopt;
    }
    const unsigned char* at = record.data.data() + offset;
    auto name = expandAt(message, at);
    // A name may point back into the message, but what stands here must fill the record.
    return at == record.data.data() + record.data.size() ? name : std::nullopt;
}

bool isValidated(std::span<const unsigned char> message) noexcept {
    return message.size() > kHeaderSize && (message[3] & kValidated) != 0;
}

} // namespace Email
