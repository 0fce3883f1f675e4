#include "email/site/TlsaAnswer.h"

#include "email/site/DnsAnswer.h"

#include <algorithm>
#include <array>

namespace Email {

namespace {

constexpr int kTypeTlsa = 52;
constexpr std::size_t kFixed = 3; // usage, selector, matching type
constexpr std::size_t kShownBytes = 8;

} // namespace

std::optional<std::vector<std::string>> readTlsa(std::span<const unsigned char> message) {
    const auto answer = readAnswer(message);
    if (!answer) {
        return std::nullopt;
    }
    std::vector<std::string> records;
    for (const DnsRecord& record : *answer) {
        if (record.type == kTypeTlsa && records.size() < kMostTlsa) {
            records.emplace_back(record.data.begin(), record.data.end());
        }
    }
    return records;
}

bool isUsableTlsa(const std::string& record) noexcept {
    if (record.size() <= kFixed) {
        return false;
    }
    const std::size_t size = record.size() - kFixed;
    const bool rightLength = record[2] == 0 || (record[2] == 1 && size == 32) || // SHA-256
                             (record[2] == 2 && size == 64);                     // SHA-512
    // The other usages rest on authorities that sender and receiver need not have in common.
    return (record[0] == 2 || record[0] == 3) && (record[1] == 0 || record[1] == 1) && rightLength;
}

std::string tlsaText(const std::string& record) {
    static constexpr std::array<char, 17> kDigits{"0123456789abcdef"};
    std::string out;
    for (std::size_t i = 0; i < std::min(record.size(), kFixed + kShownBytes); ++i) {
        const auto byte = static_cast<unsigned char>(record[i]);
        if (i < kFixed) {
            out.append(std::to_string(byte)).append(1, ' ');
        } else {
            out.append(1, kDigits.at(byte >> 4)).append(1, kDigits.at(byte & 15));
        }
    }
    return record.size() > kFixed + kShownBytes ? out + "..." : out;
}

} // namespace Email
