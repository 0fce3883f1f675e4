// Byte strings for tests of wire formats.
#pragma once

#include "libevrep/EventArchive.h"
#include "libevrep/senddata.h"

#include <cstdlib>
#include <span>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

using Bytes = std::vector<std::byte>;

// From hexadecimal pairs; a piece between apostrophes stands for its characters ('ab' is 61 62).
inline Bytes hex(const std::string& text) {
    Bytes bytes;
    std::istringstream pieces(text);
    for (std::string piece; pieces >> piece;) {
        if (piece.front() != '\'') {
            bytes.push_back(static_cast<std::byte>(std::strtoul(piece.c_str(), nullptr, 16)));
            continue;
        }
        for (const char c : std::string_view(piece).substr(1, piece.size() - 2))
            bytes.push_back(static_cast<std::byte>(c));
    }
    return bytes;
}

inline Bytes copy(std::span<const std::byte> bytes) {
    return {bytes.begin(), bytes.end()};
}

inline std::string_view asText(std::span<const std::byte> bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

inline void append(Bytes& to, std::span<const std::byte> bytes) {
    to.insert(to.end(), bytes.begin(), bytes.end());
}

template<class Record>
Bytes archived(const Record& record) {
    CMemArchive archive;
    archive << record;
    return copy(archive.Bytes());
}

// Everything a transfer hands out, in order.
inline Bytes handedOut(CTransfer& transfer) {
    Bytes bytes;
    while (const CMemArchive* piece = transfer.GetWriteData()) {
        append(bytes, piece->Bytes());
        transfer.Transition();
    }
    return bytes;
}

inline Bytes framed(const GW_EVENT& event) {
    CTransfer transfer;
    transfer.Send(event);
    return handedOut(transfer);
}
