#include "libevrep/FrameReader.h"

#include "libevrep/crc32.h"

#include <algorithm>
#include <cstdio>
#include <string_view>
#include <utility>

namespace {

// Identity, padding and version: what every sound header begins with.
constexpr std::size_t headerStart = CSendHeader::versionAt + sizeof(std::int32_t);

std::string_view asText(std::span<const std::byte> bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

std::string hex(std::uint32_t value) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%08x", static_cast<unsigned>(value));
    return text;
}

} // namespace

std::span<const std::byte> FrameReader::rest() const noexcept {
    return std::span(buffer_).subspan(start_);
}

void FrameReader::feed(std::span<const std::byte> bytes) {
    // Only when the larger part is consumed: moving the rest then costs less than what was read,
    // also when a hostile sender makes progress byte by byte.
    if (start_ > buffer_.size() / 2) {
        buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(start_));
        base_ += start_;
        start_ = 0;
    }
    buffer_.insert(buffer_.end(), bytes.begin(), bytes.end());
}

FrameEvent FrameReader::next() {
    // After damage what comes is passed over, up to the next sound beginning.
    if (searching_ && !findHeader())
        return {};
    const std::string_view identity = CSendHeader::Identity();
    const std::string_view seen = asText(rest()).substr(0, identity.size());
    // As far as it has come: what cannot become the identity any more is told at once.
    if (!identity.starts_with(seen))
        return damage(FrameFault::Identity, offset(), "no message begins here");
    if (rest().size() < CSendHeader::wireSize)
        return incomplete(CSendHeader::wireSize);
    return checkHeader();
}

// Moves to the next beginning of a header, or to the last place where one may still come. The
// identity alone is not enough: every footer holds it too.
bool FrameReader::findHeader() {
    static const auto sound = CSendHeader().Bytes();
    const std::size_t found = asText(rest()).find(asText(sound).substr(0, headerStart));
    searching_ = found == std::string_view::npos;
    // A header may have begun in the last bytes; at the end of the stream none can.
    const std::size_t open = finished_ ? 0 : std::min(rest().size(), headerStart - 1);
    start_ += searching_ ? rest().size() - open : found;
    return !searching_;
}

FrameEvent FrameReader::incomplete(std::uint64_t needed) {
    if (!finished_ || rest().empty())
        return {};
    return damage(FrameFault::Truncated, offset() + rest().size(),
                  "the stream ends after " + std::to_string(rest().size()) + " of the " +
                      std::to_string(needed) + " bytes that begin at offset " +
                      std::to_string(offset()));
}

FrameEvent FrameReader::checkHeader() {
    const CSendHeader header(rest().first<CSendHeader::wireSize>());
    if (!header.IsPadded())
        return damage(FrameFault::Padding, offset() + CSendHeader::paddingAt,
                      "the two bytes after the identity are not 0");
    if (!header.IsValid())
        return damage(FrameFault::Version, offset() + CSendHeader::versionAt,
                      "version is " + std::to_string(header.GetVer()) + " instead of 1");
    // Else one forged size would make the reader collect whatever comes, for ever.
    if (header.GetSize() > maxDataSize_)
        return damage(FrameFault::Size, offset() + CSendHeader::sizeAt,
                      "size is " + std::to_string(header.GetSize()) + ", more than the accepted " +
                          std::to_string(maxDataSize_));
    // In 64 bits: a size near 4 GB and the fixed parts do not fit 32.
    const std::uint64_t whole =
        std::uint64_t{CSendHeader::wireSize} + header.GetSize() + CSendFooter::wireSize;
    return rest().size() < whole ? incomplete(whole) : checkBody(header);
}

FrameEvent FrameReader::checkBody(const CSendHeader& header) {
    const std::uint64_t at = offset();
    const auto data = rest().subspan(CSendHeader::wireSize, header.GetSize());
    const auto afterData = rest().subspan(CSendHeader::wireSize + data.size());
    const CSendFooter footer(afterData.first<CSendFooter::wireSize>());
    // Before the checksum: so no byte is summed up twice, however many headers claim it.
    if (!footer.IsValid())
        return damage(FrameFault::Footer, at + CSendHeader::wireSize + data.size(),
                      "the footer does not stand where the size says");
    // Header and footer agree, so it is known where the frame ends: reading goes on behind it, also
    // when the data turns out to be damaged.
    start_ += CSendHeader::wireSize + data.size() + CSendFooter::wireSize;
    std::uint32_t checksum = 0;
    CrcBuffer(data.data(), data.size(), &checksum);
    if (checksum != header.GetCRC())
        return FrameDamage{FrameFault::Checksum, at + CSendHeader::checksumAt,
                           "checksum of the data is " + hex(checksum) + ", the header says " +
                               hex(header.GetCRC())};
    return Frame{header, data, footer, at};
}

FrameEvent FrameReader::damage(FrameFault fault, std::uint64_t at, std::string what) {
    // Only by one: a true header may begin within what was taken for one.
    ++start_;
    searching_ = true;
    return FrameDamage{fault, at, std::move(what)};
}
