// A byte sink and source with the encoding of every primitive that event records are made of.
//
// Numbers are raw, in the host's byte order (little-endian on the appliance): int, long and
// enumerations 4 bytes on every host, short 2, char 1. A text is its length in bytes (4 bytes)
// and its characters without terminator; a wide character is 4 bytes.
//
// Reading treats every byte as hostile. A length or count that the rest of the archive cannot
// hold puts the archive into the failed state; from then on nothing is read and every
// destination stays as it is.
#pragma once

#include <cstddef>
#include <memory>
#include <span>
#include <string>
#include <string_view>

class CArchive {
public:
    // Raw transfer, which everything else uses and which is all that an archive must supply. Gives
    // the number of bytes asked for, also when the transfer failed: ask Failed(). A Read that gives
    // another number puts the archive into the failed state.
    virtual std::size_t Write(const void* bytes, std::size_t count) = 0;
    virtual std::size_t Read(void* bytes, std::size_t count) = 0;

    // A null text is written as an empty one. Of a long, the low 32 bits are written.
    virtual CArchive& operator<<(int value);
    virtual CArchive& operator<<(unsigned int value);
    virtual CArchive& operator<<(short value);
    virtual CArchive& operator<<(unsigned short value);
    virtual CArchive& operator<<(long value);
    virtual CArchive& operator<<(unsigned long value);
    virtual CArchive& operator<<(char value);
    virtual CArchive& operator<<(unsigned char value);
    virtual CArchive& operator<<(const char* text);
    virtual CArchive& operator<<(const unsigned char* text);
    virtual CArchive& operator<<(const std::string& text);
    virtual CArchive& operator<<(const wchar_t* text);

    // A long is read from its 4 bytes, sign- or zero-extended. A text of length 0 (or a negative
    // one) leaves an allocated text or string as it was and empties a caller's buffer; a text
    // that does not fit a caller's buffer with its terminator is a failure. There is no form for
    // a buffer of unknown size.
    virtual CArchive& operator>>(int& value);
    virtual CArchive& operator>>(unsigned int& value);
    virtual CArchive& operator>>(short& value);
    virtual CArchive& operator>>(unsigned short& value);
    virtual CArchive& operator>>(long& value);
    virtual CArchive& operator>>(unsigned long& value);
    virtual CArchive& operator>>(char& value);
    virtual CArchive& operator>>(unsigned char& value);
    virtual CArchive& operator>>(std::unique_ptr<char[]>& text);
    virtual CArchive& operator>>(std::unique_ptr<unsigned char[]>& text);
    virtual CArchive& operator>>(std::span<char> buffer);
    virtual CArchive& operator>>(std::span<unsigned char> buffer);
    virtual CArchive& operator>>(std::string& text);
    virtual CArchive& operator>>(std::unique_ptr<wchar_t[]>& text);
    virtual CArchive& operator>>(std::span<wchar_t> buffer);

    // How many bytes can still be read; no text or list can be longer. An archive that does not
    // know, as by default, says how much a text or list of it may take at most.
    [[nodiscard]] virtual std::size_t BytesLeft() const noexcept { return unknownRest; }
    static constexpr std::size_t unknownRest = std::size_t{16} * 1024 * 1024;
    [[nodiscard]] bool Failed() const noexcept { return m_bFailed; }
    // Puts the archive into the failed state. `why` is a literal; the first one is kept.
    void Fail(const char* why) noexcept {
        m_szFault = m_bFailed ? m_szFault : why;
        m_bFailed = true;
    }
    // Why the archive failed; empty while it has not.
    [[nodiscard]] const char* Fault() const noexcept { return m_szFault; }

    // Wide texts that may hold zero characters.
    CArchive& operator<<(std::wstring_view text);
    CArchive& operator>>(std::wstring& text);

    // Reads the number of entries of a list whose entries take at least `entrySize` bytes; 0 and
    // the failed state when the rest cannot hold so many.
    [[nodiscard]] std::size_t ReadCount(std::size_t entrySize);

protected:
    CArchive() = default;
    CArchive(const CArchive&) = default;
    CArchive& operator=(const CArchive&) = default;
    ~CArchive() = default;

private:
    template<class Wire, class Value>
    CArchive& readNumber(Value& value);
    void take(void* bytes, std::size_t count);
    void writeText(const void* text, std::size_t bytes);
    [[nodiscard]] std::size_t readLength(std::size_t unit);
    template<class Unit>
    CArchive& readAllocated(std::unique_ptr<Unit[]>& text);
    template<class Unit>
    CArchive& readBuffer(std::span<Unit> buffer);
    template<class Text>
    CArchive& readObject(Text& text);

    bool m_bFailed = false;
    const char* m_szFault = "";
};
