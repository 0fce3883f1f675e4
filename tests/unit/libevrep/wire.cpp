#include "wire.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <sstream>

Bytes hex(const std::string& text) {
    Bytes bytes;
    std::istringstream pieces(text);
    for (std::string piece; pieces >> piece;) {
        std::size_t times = 0;
        if (piece == "*" && pieces >> times)
            bytes.resize(bytes.size() - 1 + times, bytes.back());
        else if (piece.front() == '\'')
            append(bytes, std::as_bytes(std::span(piece).subspan(1, piece.size() - 2)));
        else
            bytes.push_back(static_cast<std::byte>(std::stoul(piece, nullptr, 16)));
    }
    return bytes;
}

Bytes block(const std::string& path, const std::string& name) {
    std::ifstream file(path);
    std::string line;
    while (std::getline(file, line) && line != "```wire-" + name) {
    }
    Bytes bytes;
    while (std::getline(file, line) && line != "```") {
        const std::size_t end = line.rfind(" | ");
        const std::size_t start = line.find(" | ") == end ? 0 : line.find(" | ") + 3;
        EXPECT_LT(end, line.size() - 3) << "not explained: " << line;
        EXPECT_TRUE(start == 0 || std::stoul(line, nullptr, 16) == bytes.size()) << line;
        const std::string field = line.substr(start, end - start);
        const std::string other = field.substr(1, field.find(' ') - 1);
        append(bytes, field[0] == '@' ? block(path, other) : hex(field));
    }
    EXPECT_FALSE(bytes.empty()) << "no block " << name << " in " << path;
    return bytes;
}

Bytes type(const std::string& name) {
    return block(golden + "types.txt", name);
}

Bytes handedOut(CTransfer& transfer) {
    Bytes bytes;
    while (const CMemArchive* piece = transfer.GetWriteData()) {
        append(bytes, piece->Bytes());
        transfer.Transition();
    }
    std::ranges::copy(hex("00 f1 53 65"), bytes.begin() + 20);
    return bytes;
}

Bytes framed(std::span<const std::byte> data, CSendHeader::TaskVerb task) {
    CSendHeader header;
    header.SetTask(task);
    CTransfer transfer;
    transfer.Send(header, std::make_unique<CMemArchive>(data));
    return handedOut(transfer);
}
