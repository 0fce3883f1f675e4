// A name server for the benchmark's own zone: "d<n>.bench.test" has the one exchanger
// "mx<n>.bench.test", which has the address <network>.<n + 1>. So have "late<n>", "cut<n>" and
// "dead<n>" theirs, in subnets of their own. About "mute<n>" no question is answered; every other
// name does not exist.
#pragma once

#include "Smtp.h"

#include <cstdint>
#include <string>
#include <string_view>

inline constexpr std::uint32_t kLateSubnet = 16U << 8; // servers that greet late
inline constexpr std::uint32_t kCutSubnet = 17U << 8;  // that close after DATA
inline constexpr std::uint32_t kDeadSubnet = 18U << 8; // that answer no connection
inline constexpr unsigned kSickHosts = 20;             // of each kind

class Dns {
public:
    // `network` is the address that "mx0" has, in host order; `hosts` the number of exchangers.
    Dns(std::uint32_t network, unsigned hosts) noexcept : network_(network), hosts_(hosts) {}

    // The answer to one question (RFC 1035), empty when it is not one or gets none.
    [[nodiscard]] std::string answer(std::string_view question, Counters& counters) const;

private:
    std::uint32_t network_;
    unsigned hosts_;
};
