// Lists standard-log records.
#pragma once

#include "RecordWriter.h"

#include <cstddef>
#include <span>
#include <vector>

class LogListing {
public:
    explicit LogListing(RecordWriter& writer) : writer_(writer) {}

    // The next bytes of a file of records. A record with a wrong size or version is listed as
    // damage, and the next one is expected where it would be anyway.
    void feed(std::span<const std::byte> bytes);
    void finish();

    // One datagram of that length, of which `bytes` is what was stored.
    void datagram(std::span<const std::byte> bytes, std::size_t length);

    [[nodiscard]] bool damaged() const noexcept { return damaged_; }

private:
    void list(std::span<const std::byte> record);
    void damage(std::size_t at, std::string_view what);

    RecordWriter& writer_;
    std::vector<std::byte> pending_; // less than a record
    std::uint64_t offset_ = 0;       // of the record in work
    bool damaged_ = false;
};
