// Checksum of a framed message.
#pragma once

#include <cstddef>
#include <cstdint>

// Runs `length` bytes through `*checksum` with the CRC-32 table (reflected polynomial
// 0xEDB88320). The start value is taken as it is and nothing is inverted, so a start value of 0
// gives other results than the usual CRC-32: the appliance's programs count on it. False for a
// null text or checksum.
bool CrcBuffer(const void* text, std::size_t length, std::uint32_t* checksum) noexcept;
