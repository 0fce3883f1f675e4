#include "libevrep/senddata.h"

#include "libevrep/EventArchive.h"
#include "libevrep/FrameReader.h"
#include "libevrep/crc32.h"
#include "libevrep/debugOut.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <ctime>
#include <type_traits>
#include <utility>

namespace {

constexpr char identity[] = "QEL_APPLIANCE";
constexpr char footerText[] = "END QEL_APPLIANCE";

// What the collector takes this kind of appliance for.
constexpr SourceType eventSource = TYPE_QA2;

template<std::size_t Size>
std::span<const std::byte, Size> front(const CMemArchive& piece) {
    return piece.Bytes().first<Size>();
}

} // namespace

static_assert(std::is_trivially_copyable_v<CSendHeader>);
static_assert(std::is_trivially_copyable_v<CSendFooter>);

CSendHeader::CSendHeader(std::span<const std::byte, wireSize> bytes) noexcept {
    // Its members lie as its bytes do on the wire.
    std::memcpy(static_cast<void*>(this), bytes.data(), wireSize);
}

void CSendHeader::Init() noexcept {
    static_assert(sizeof identity == sizeof m_szIdentity);
    std::copy(std::begin(identity), std::end(identity), m_szIdentity);
    std::fill(std::begin(m_Padding), std::end(m_Padding), '\0');
    m_nVersion = currentVersion;
    m_timeStamp = static_cast<std::uint32_t>(time(nullptr));
    m_nSourceType = TYPE_UNKNOWN;
    m_nTaskVerb = TASK_NOTHING;
    m_lDataCRC = 0;
    m_lSize = 0;
}

bool CSendHeader::IsValid() const noexcept {
    return GetIdentity() == Identity() && m_nVersion == currentVersion;
}

bool CSendHeader::IsPadded() const noexcept {
    return m_Padding[0] == 0 && m_Padding[1] == 0;
}

std::string_view CSendHeader::GetIdentity() const noexcept {
    return {m_szIdentity, sizeof m_szIdentity};
}

std::string_view CSendHeader::Identity() noexcept {
    return {identity, sizeof identity};
}

void CSendHeader::DisplayTime() const {
    const time_t when = m_timeStamp;
    char text[32] = "";
    if (ctime_r(&when, text) != nullptr)
        debugOut(text);
}

std::array<std::byte, CSendHeader::wireSize> CSendHeader::Bytes() const noexcept {
    return std::bit_cast<std::array<std::byte, wireSize>>(*this);
}

CSendFooter::CSendFooter() noexcept : m_szFooter(std::to_array(footerText)) {}

CSendFooter::CSendFooter(std::span<const std::byte, wireSize> bytes) noexcept {
    std::memcpy(m_szFooter.data(), bytes.data(), wireSize);
}

bool CSendFooter::IsValid() const noexcept {
    return m_szFooter == std::to_array(footerText);
}

std::span<const std::byte, CSendFooter::wireSize> CSendFooter::data() const noexcept {
    return std::as_bytes(std::span<const char, wireSize>(m_szFooter));
}

void CTransfer::Init() noexcept {
    *this = CTransfer(m_pSocket);
}

std::int32_t CTransfer::Send(const GW_EVENT& event) {
    auto data = std::make_unique<CMemArchive>();
    *data << event;
    CSendHeader header;
    header.SetTask(CSendHeader::TASK_EVENT);
    header.SetSourceType(eventSource);
    return Send(header, std::move(data));
}

std::int32_t CTransfer::Send(CSendHeader header, const char* text, std::size_t length) {
    auto data = std::make_unique<CMemArchive>();
    // Without a text there is a data piece all the same, an empty one.
    if (text != nullptr)
        data->Write(text, length);
    return Send(header, std::move(data));
}

std::int32_t CTransfer::Send(CSendHeader header, std::unique_ptr<CMemArchive> data) {
    const std::span<const std::byte> bytes = data ? data->Bytes() : std::span<const std::byte>();
    std::uint32_t checksum = 0;
    CrcBuffer(bytes.data(), bytes.size(), &checksum);
    header.SetCRC(checksum);
    header.SetSize(static_cast<std::uint32_t>(bytes.size()));
    // First: it clears what an earlier message left.
    Send(header);
    m_pEventData = std::move(data);
    return 0;
}

std::int32_t CTransfer::Send(const CSendHeader& header) {
    Init();
    m_pHdrData = std::make_unique<CMemArchive>(header.Bytes());
    m_pFooterData = std::make_unique<CMemArchive>(CSendFooter().data());
    m_nState = HEADER;
    return 0;
}

void CTransfer::ResetState() noexcept {
    for (CMemArchive* const piece : {m_pHdrData.get(), m_pEventData.get(), m_pFooterData.get()}) {
        if (piece != nullptr)
            piece->Rewind();
    }
    m_nState = HEADER;
}

CMemArchive* CTransfer::GetWriteData() {
    // A header that was sent alone has no data: its footer is next.
    if (m_nState == DATA && !m_pEventData)
        Transition();
    switch (m_nState) {
    case HEADER:
        return m_pHdrData.get();
    case DATA:
        return m_pEventData.get();
    case FOOTER:
        return m_pFooterData.get();
    case UNKNOWN:
    case FINISHED:
        break;
    }
    return nullptr;
}

std::span<std::byte> CTransfer::GetReadBuffer() {
    std::span<std::byte> buffer;
    if (m_nState == HEADER)
        buffer = m_pHdrBuffer;
    else if (m_nState == DATA)
        buffer = dataBuffer();
    else if (m_nState == FOOTER)
        buffer = m_pFooterBuffer;
    m_nBytesToRead = static_cast<std::int32_t>(buffer.size());
    return buffer;
}

std::span<std::byte> CTransfer::dataBuffer() {
    const CSendHeader header(m_pHdrBuffer);
    // The header came from outside: no room is made for what an unsound one announces.
    const bool accepted = header.IsValid() && header.GetSize() <= FrameReader::defaultMaxDataSize;
    m_pDataBuffer.resize(accepted ? header.GetSize() : 0);
    return m_pDataBuffer;
}

TransferState CTransfer::Transition() {
    switch (m_nState) {
    case HEADER:
        debugOut("Transition to DATA\r\n");
        return m_nState = DATA;
    case DATA:
        debugOut("Transition to FOOTER\r\n");
        return m_nState = FOOTER;
    case FOOTER:
        debugOut("Transition to FINISHED\r\n");
        return m_nState = FINISHED;
    case FINISHED:
        debugOut("Error. Transition state should not be getting called\r\n");
        return FINISHED;
    case UNKNOWN:
        break;
    }
    debugOut("The Transfer state is unknown ?? \r\n");
    return UNKNOWN;
}

bool CTransfer::IsValid() const noexcept {
    return m_pHdrData && m_pFooterData && GetSendHeader().IsValid() && GetSendFooter().IsValid();
}

CSendHeader CTransfer::GetSendHeader() const noexcept {
    return m_pHdrData ? CSendHeader(front<CSendHeader::wireSize>(*m_pHdrData)) : CSendHeader();
}

CSendFooter CTransfer::GetSendFooter() const noexcept {
    return m_pFooterData ? CSendFooter(front<CSendFooter::wireSize>(*m_pFooterData))
                         : CSendFooter();
}
