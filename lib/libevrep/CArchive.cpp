#include "libevrep/CArchive.h"

#include <cstdint>
#include <cstring>
#include <cwchar>
#include <limits>
#include <utility>

namespace {

template<class Wire>
CArchive& writeNumber(CArchive& archive, Wire value) {
    // In the host's byte order: every appliance is little-endian, and both ends rely on it.
    archive.Write(&value, sizeof value);
    return archive;
}

} // namespace

CArchive& CArchive::operator<<(int value) {
    return writeNumber<std::int32_t>(*this, value);
}

CArchive& CArchive::operator<<(unsigned int value) {
    return writeNumber<std::uint32_t>(*this, value);
}

CArchive& CArchive::operator<<(short value) {
    return writeNumber(*this, value);
}

CArchive& CArchive::operator<<(unsigned short value) {
    return writeNumber(*this, value);
}

CArchive& CArchive::operator<<(long value) {
    // Four bytes, though a long of this host may have eight: the wire knows one width.
    return writeNumber(*this, static_cast<std::int32_t>(value));
}

CArchive& CArchive::operator<<(unsigned long value) {
    return writeNumber(*this, static_cast<std::uint32_t>(value));
}

CArchive& CArchive::operator<<(char value) {
    return writeNumber(*this, value);
}

CArchive& CArchive::operator<<(unsigned char value) {
    return writeNumber(*this, value);
}

CArchive& CArchive::operator<<(const char* text) {
    writeText(text, text != nullptr ? std::strlen(text) : 0);
    return *this;
}

CArchive& CArchive::operator<<(const unsigned char* text) {
    return *this << reinterpret_cast<const char*>(text);
}

CArchive& CArchive::operator<<(const std::string& text) {
    writeText(text.data(), text.size());
    return *this;
}

CArchive& CArchive::operator<<(const wchar_t* text) {
    // A null pointer goes out as the empty text.
    return *this << (text != nullptr ? std::wstring_view(text) : std::wstring_view());
}

CArchive& CArchive::operator<<(std::wstring_view text) {
    writeText(text.data(), text.size() * sizeof(wchar_t));
    return *this;
}

void CArchive::writeText(const void* text, std::size_t bytes) {
    // A reader takes the length as a signed number.
    if (bytes > static_cast<std::size_t>(std::numeric_limits<std::int32_t>::max())) {
        Fail("text too long for its length field");
        return;
    }
    *this << static_cast<std::uint32_t>(bytes);
    if (bytes > 0)
        Write(text, bytes);
}

// Fewer bytes than asked for are a failure: half a value is none.
void CArchive::take(void* bytes, std::size_t count) {
    if (Read(bytes, count) != count)
        Fail("the bytes end inside a value");
}

// A value of its own until the read has succeeded, so that a failed one leaves `value` alone.
template<class Wire, class Value>
CArchive& CArchive::readNumber(Value& value) {
    Wire wire{};
    take(&wire, sizeof wire);
    if (!Failed())
        value = wire;
    return *this;
}

CArchive& CArchive::operator>>(int& value) {
    return readNumber<std::int32_t>(value);
}

CArchive& CArchive::operator>>(unsigned int& value) {
    return readNumber<std::uint32_t>(value);
}

CArchive& CArchive::operator>>(short& value) {
    return readNumber<short>(value);
}

CArchive& CArchive::operator>>(unsigned short& value) {
    return readNumber<unsigned short>(value);
}

CArchive& CArchive::operator>>(long& value) {
    return readNumber<std::int32_t>(value);
}

CArchive& CArchive::operator>>(unsigned long& value) {
    return readNumber<std::uint32_t>(value);
}

CArchive& CArchive::operator>>(char& value) {
    return readNumber<char>(value);
}

CArchive& CArchive::operator>>(unsigned char& value) {
    return readNumber<unsigned char>(value);
}

CArchive& CArchive::operator>>(std::unique_ptr<char[]>& text) {
    return readAllocated(text);
}

CArchive& CArchive::operator>>(std::unique_ptr<unsigned char[]>& text) {
    return readAllocated(text);
}

CArchive& CArchive::operator>>(std::unique_ptr<wchar_t[]>& text) {
    return readAllocated(text);
}

CArchive& CArchive::operator>>(std::span<char> buffer) {
    return readBuffer(buffer);
}

CArchive& CArchive::operator>>(std::span<unsigned char> buffer) {
    return readBuffer(buffer);
}

CArchive& CArchive::operator>>(std::span<wchar_t> buffer) {
    return readBuffer(buffer);
}

CArchive& CArchive::operator>>(std::string& text) {
    return readObject(text);
}

CArchive& CArchive::operator>>(std::wstring& text) {
    return readObject(text);
}

std::size_t CArchive::ReadCount(std::size_t entrySize) {
    std::uint32_t count = 0;
    *this >> count;
    // Asked before anything is allocated: an absurd count from outside must cost nothing.
    if (count > BytesLeft() / entrySize) {
        Fail("number of entries is more than the rest can hold");
        return 0;
    }
    return count;
}

// The number of characters that follow; 0 when there is nothing to read, also after a failure.
std::size_t CArchive::readLength(std::size_t unit) {
    std::int32_t length = 0;
    *this >> length;
    // 0 and less stand for no text: the target is left as it was.
    if (length < 1)
        return 0;
    const auto bytes = static_cast<std::size_t>(length);
    if (bytes > BytesLeft()) {
        Fail("text length is more than the rest can hold");
        return 0;
    }
    // A wide character has four bytes: part of one is damage, not text.
    if (bytes % unit != 0) {
        Fail("wide text length is no multiple of 4");
        return 0;
    }
    return bytes / unit;
}

template<class Unit>
CArchive& CArchive::readAllocated(std::unique_ptr<Unit[]>& text) {
    if (const std::size_t length = readLength(sizeof(Unit)); length > 0) {
        // Zeroed, so that it is terminated however much is read into it.
        auto fresh = std::make_unique<Unit[]>(length + 1);
        take(fresh.get(), length * sizeof(Unit));
        // Only now: what the caller has is kept until there is something to replace it.
        text = std::move(fresh);
    }
    return *this;
}

template<class Unit>
CArchive& CArchive::readBuffer(std::span<Unit> buffer) {
    const std::size_t length = readLength(sizeof(Unit));
    // The terminator needs room as well.
    if (length >= buffer.size())
        Fail("text does not fit the buffer given for it");
    if (Failed())
        return *this;
    take(buffer.data(), length * sizeof(Unit));
    buffer[length] = Unit{};
    return *this;
}

template<class Text>
CArchive& CArchive::readObject(Text& text) {
    constexpr std::size_t unit = sizeof(typename Text::value_type);
    if (const std::size_t length = readLength(unit); length > 0) {
        text.resize(length);
        take(text.data(), length * unit);
    }
    return *this;
}
