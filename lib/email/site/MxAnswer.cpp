#include "email/site/MxAnswer.h"

#include "email/site/DnsAnswer.h"

#include <arpa/nameser.h>
#include <strings.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

namespace Email {

namespace {

bool sameName(const std::string& a, const std::string& b) noexcept {
    return ::strcasecmp(a.c_str(), b.c_str()) == 0;
}

} // namespace

std::optional<std::vector<Exchanger>> readExchangers(std::span<const unsigned char> message) {
    const auto records = readAnswer(message);
    if (!records) {
        return std::nullopt;
    }
    std::vector<Exchanger> exchangers;
    for (const DnsRecord& record : *records) {
        if (record.type != ns_t_mx || exchangers.size() == kMostExchangers) {
            continue;
        }
        auto name = nameIn(message, record, 2); // behind the preference
        if (!name) {
            return std::nullopt;
        }
        exchangers.push_back({std::move(*name), record.data[0] << 8 | record.data[1]});
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
