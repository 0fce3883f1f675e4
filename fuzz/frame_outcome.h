// What a frame reader makes of a stream that comes in pieces, for the fuzz target and unit tests.
#pragma once

#include "libevrep/FrameReader.h"

#include <algorithm>

// One line each: "63:<data>" for a message, "79:Version: <what>" for a damage.
inline std::vector<std::string> outcomeOf(std::span<const std::byte> bytes, std::size_t piece,
                                          std::uint32_t maxDataSize) {
    static constexpr const char* faults[] = {
        "Identity: ", "Padding: ", "Version: ", "Size: ", "Footer: ", "Checksum: ", "Truncated: "};
    FrameReader reader(maxDataSize);
    std::vector<std::string> lines;
    for (std::size_t at = 0; at <= bytes.size(); at += piece) {
        reader.feed(bytes.subspan(at, std::min(piece, bytes.size() - at)));
        if (piece > bytes.size() - at)
            reader.finish();
        for (FrameEvent next = reader.next(); next.index() != 0; next = reader.next()) {
            const auto* damage = std::get_if<FrameDamage>(&next);
            const std::uint64_t offset = damage ? damage->offset : std::get<Frame>(next).offset;
            std::string& line = lines.emplace_back(std::to_string(offset) + ":");
            if (damage)
                line += faults[static_cast<int>(damage->fault)] + damage->what;
            else
                for (const std::byte byte : std::get<Frame>(next).data)
                    line += static_cast<char>(byte);
        }
    }
    return lines;
}
