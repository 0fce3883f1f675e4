// The archive in memory: what is written is appended, what is read is taken from the front.
#pragma once

#include "libevrep/CArchive.h"

#include <ios>
#include <vector>

class CMemArchive final : public CArchive {
public:
    CMemArchive() = default;
    // Starts with a copy of `bytes`, ready to be read.
    explicit CMemArchive(std::span<const std::byte> bytes) : m_Bytes(bytes.begin(), bytes.end()) {}

    std::size_t Write(const void* bytes, std::size_t count) override;
    // All of `count` bytes or none of them: with fewer left the archive fails and `bytes` is
    // untouched. Reports a state other than good to debugOut() first.
    std::size_t Read(void* bytes, std::size_t count) override;

    [[nodiscard]] std::size_t BytesLeft() const noexcept override {
        return m_Bytes.size() - m_nPosition;
    }
    // Everything written so far or given at the start. Valid until the next Write.
    [[nodiscard]] std::span<const std::byte> Bytes() const noexcept { return m_Bytes; }
    // How many bytes have been read: after a failure, the place at or just before the fault.
    [[nodiscard]] std::size_t Position() const noexcept { return m_nPosition; }
    // Starts over: what was read can be read again.
    void Rewind() noexcept { m_nPosition = 0; }

private:
    std::vector<std::byte> m_Bytes;
    std::size_t m_nPosition = 0;
    std::ios::iostate m_State = std::ios::goodbit;
};
