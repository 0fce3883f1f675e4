#include "libevrep/CMemArchive.h"

#include "libevrep/debugOut.h"

#include <cstring>

std::size_t CMemArchive::Write(const void* bytes, std::size_t count) {
    const auto* first = static_cast<const std::byte*>(bytes);
    m_Bytes.insert(m_Bytes.end(), first, first + count);
    return count;
}

std::size_t CMemArchive::Read(void* bytes, std::size_t count) {
    // The state that earlier reads left, for whoever listens to the debug channel.
    if ((m_State & std::ios::eofbit) != 0)
        debugOut("EOF bit set\r\n");
    if (Failed())
        debugOut("fail bit set\r\n");
    if ((m_State & std::ios::badbit) != 0)
        debugOut("bad bit set\r\n");
    if (Failed())
        return count;
    if (count > BytesLeft()) {
        m_State |= std::ios::eofbit;
        Fail("the bytes end inside a value");
        return count;
    }
    if (count > 0)
        std::memcpy(bytes, m_Bytes.data() + m_nPosition, count);
    m_nPosition += count;
    // The other programs take the answer for the bytes asked for, whatever was read.
    return count;
}
