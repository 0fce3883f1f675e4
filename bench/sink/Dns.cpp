#include "Dns.h"

#include <array>
#include <charconv>
#include <optional>

namespace {

constexpr std::size_t kHeader = 12;
constexpr std::string_view kZone = ".bench.test";

void put16(std::string& out, unsigned value) {
    out += static_cast<char>(value >> 8 & 0xff);
    out += static_cast<char>(value & 0xff);
}

// Reads the question's name into dotted lower case; the position behind it, 0 when malformed.
std::size_t readName(std::string_view message, std::string& name) {
    std::size_t at = kHeader;
    while (at < message.size() && message[at] != 0) {
        const auto length = static_cast<unsigned char>(message[at]);
        if (length > 63 || at + length + 1 >= message.size()) {
            return 0;
        }
        for (const char c : message.substr(at + 1, length)) {
            name += c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
        }
        name += '.';
        at += length + 1U;
    }
    if (!name.empty()) {
        name.pop_back();
    }
    return at + 5 <= message.size() ? at + 1 : 0;
}

std::optional<unsigned> numberIn(std::string_view name, std::string_view prefix, unsigned limit) {
    if (!name.starts_with(prefix) || !name.ends_with(kZone)) {
        return std::nullopt;
    }
    name.remove_prefix(prefix.size());
    name.remove_suffix(kZone.size());
    unsigned number = limit;
    const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), number);
    const bool good = error == std::errc{} && end == name.data() + name.size() && number < limit;
    return good ? std::optional(number) : std::nullopt;
}

// A kind of domain: "<domain><n>" has the exchanger "<host><n>" at the n-th address of a subnet.
struct Kind {
    std::string_view domain;
    std::string_view host;
    std::uint32_t subnet;
};
constexpr std::array kKinds{Kind{"d", "mx", 0}, Kind{"late", "slow", kLateSubnet},
                            Kind{"cut", "shut", kCutSubnet}, Kind{"dead", "gone", kDeadSubnet}};

struct Named {
    const Kind* kind = nullptr;
    unsigned number = 0;
};

Named named(std::string_view name, std::string_view Kind::*part, unsigned limit) {
    for (const Kind& kind : kKinds) {
        if (const auto number = numberIn(name, kind.*part, limit)) {
            return {&kind, *number};
        }
    }
    return {};
}

void putRecord(std::string& out, unsigned type, const std::string& data) {
    put16(out, 0xc000 | kHeader); // the owner is the question's name
    put16(out, type);
    put16(out, 1);
    put16(out, 0);
    put16(out, 300);
    put16(out, static_cast<unsigned>(data.size()));
    out += data;
}

} // namespace

std::string Dns::answer(std::string_view question, Counters& counters) const {
    constexpr unsigned kA = 1, kMX = 15, kNoSuchName = 3;
    std::string name;
    const std::size_t end = question.size() > kHeader ? readName(question, name) : 0;
    if (end == 0) {
        return {};
    }
    const unsigned type = static_cast<unsigned char>(question[end + 1]);
    if (name.starts_with("mute")) {
        return {};
    }
    const Named domain = named(name, &Kind::domain, hosts_);
    const Named server = named(name, &Kind::host, hosts_);
    std::string record;
    if (type == kMX && domain.kind != nullptr) {
        std::string host = std::string(domain.kind->host) + std::to_string(domain.number);
        host.insert(0, 1, static_cast<char>(host.size()));
        put16(record, 10);
        record += host + "\5bench\4test" + '\0';
    } else if (type == kA && server.kind != nullptr) {
        const std::uint32_t address = network_ + server.kind->subnet + server.number;
        put16(record, address >> 16);
        put16(record, address & 0xffff);
    }
    counters.mxQuestions += type == kMX ? 1 : 0;
    counters.addressQuestions += type == kA ? 1 : 0;
    std::string out(question.substr(0, 2));
    put16(out, 0x8580 | (domain.kind != nullptr || server.kind != nullptr || name == "bench.test"
                             ? 0
                             : kNoSuchName));
    put16(out, 1);
    put16(out, record.empty() ? 0 : 1);
    put16(out, 0);
    put16(out, 0);
    out += question.substr(kHeader, end + 4 - kHeader);
    if (!record.empty()) {
        putRecord(out, type, record);
    }
    return out;
}
