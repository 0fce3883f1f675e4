// What the tests of wire formats share: byte strings, golden files, messages.
#pragma once

#include "libevrep/EventArchive.h"
#include "libevrep/senddata.h"
#include "support/memory.h"

#include <string>
#include <vector>

using Bytes = std::vector<std::byte>;

inline const std::string golden = SOURCE_TREE "/tests/unit/libevrep/golden/";
inline const std::string wireFormat = SOURCE_TREE "/docs/wire-format.md";

// From hexadecimal pairs; a piece between apostrophes stands for its characters ('ab' is 61 62),
// and "* n" repeats the byte before it, n in all.
[[nodiscard]] Bytes hex(const std::string& text);

// The block of lines between "```wire-<name>" and "```" of a file. A line is
//     [offset |] bytes | explanation
// where "@" and a name stand for the bytes of another block. No line goes without explanation, and
// an offset that is given must be right.
[[nodiscard]] Bytes block(const std::string& path, const std::string& name);
// A block of golden/types.txt.
[[nodiscard]] Bytes type(const std::string& name);

inline Bytes copy(std::span<const std::byte> bytes) {
    return {bytes.begin(), bytes.end()};
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

// Reads the bytes of a value; false unless they are read without failure and to their end.
template<class Value>
bool readAll(std::span<const std::byte> bytes, Value& value) {
    CMemArchive archive(bytes);
    archive >> value;
    return !archive.Failed() && archive.BytesLeft() == 0;
}

// Everything a transfer hands out, in order, as if it had been built at 1700000000.
[[nodiscard]] Bytes handedOut(CTransfer& transfer);
[[nodiscard]] Bytes framed(std::span<const std::byte> data,
                           CSendHeader::TaskVerb task = CSendHeader::TASK_EVENT);
