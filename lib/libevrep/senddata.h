// One framed message to the event collector: header, data, footer.
#pragma once

#include "libevrep/CMemArchive.h"
#include "libevrep/EventContext.h"
#include "libevrep/sockhandler.h"

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>
#include <vector>

// Kind of appliance that sends.
enum SourceType : std::int32_t {
    TYPE_UNKNOWN = 0,
    TYPE_QA1 = 1,
    TYPE_QA2 = 2,
    TYPE_QA3 = 3,
    TYPE_MAX = 4,
};

// The first 40 bytes of a message, sent as they are in memory (integers in host byte order).
class CSendHeader {
public:
    enum TaskVerb : std::int32_t {
        TASK_NOTHING = 0,
        TASK_ECHO = 1,
        TASK_ECHO_RESULT = 2,
        TASK_EVENT = 3,
        TASK_RETURN_FILTER = 4,
        TASK_RETURN_FILTER_RESULT = 5,
        TASK_MAX = 6,
    };
    static constexpr std::size_t wireSize = 40;
    static constexpr std::int32_t currentVersion = 1;

    // Offsets of the fields, for those who must tell where a message is damaged.
    static constexpr std::size_t paddingAt = 14;
    static constexpr std::size_t versionAt = 16;
    static constexpr std::size_t checksumAt = 32;
    static constexpr std::size_t sizeAt = 36;

    CSendHeader() noexcept { Init(); }
    // From the bytes of a received message, unchecked.
    explicit CSendHeader(std::span<const std::byte, wireSize> bytes) noexcept;

    // Identity, version 1, the time of now; everything else 0.
    void Init() noexcept;

    // Identity and version are right.
    [[nodiscard]] bool IsValid() const noexcept;
    // The bytes between identity and version are 0, as every sender leaves them.
    [[nodiscard]] bool IsPadded() const noexcept;

    // Number of data bytes.
    void SetSize(std::uint32_t size) noexcept { m_lSize = size; }
    [[nodiscard]] std::uint32_t GetSize() const noexcept { return m_lSize; }
    // Seconds since the epoch, low 32 bits.
    [[nodiscard]] std::uint32_t GetTimeStamp() const noexcept { return m_timeStamp; }
    // The 14 bytes, the terminating zero included when the header is valid.
    [[nodiscard]] std::string_view GetIdentity() const noexcept;
    void SetSourceType(SourceType type) noexcept { m_nSourceType = type; }
    [[nodiscard]] SourceType GetSourceType() const noexcept { return m_nSourceType; }
    void SetTask(TaskVerb task) noexcept { m_nTaskVerb = task; }
    [[nodiscard]] TaskVerb GetTask() const noexcept { return m_nTaskVerb; }
    void SetVer(std::int32_t version) noexcept { m_nVersion = version; }
    [[nodiscard]] std::int32_t GetVer() const noexcept { return m_nVersion; }
    // Of the data bytes: CrcBuffer from 0.
    void SetCRC(std::uint32_t checksum) noexcept { m_lDataCRC = checksum; }
    [[nodiscard]] std::uint32_t GetCRC() const noexcept { return m_lDataCRC; }

    // Writes the local time of the time stamp to the debug channel.
    void DisplayTime() const;

    [[nodiscard]] std::array<std::byte, wireSize> Bytes() const noexcept;

    // The identity of every message, its terminating zero included.
    [[nodiscard]] static std::string_view Identity() noexcept;

private:
    char m_szIdentity[14]{};
    char m_Padding[2]{};
    std::int32_t m_nVersion = currentVersion;
    std::uint32_t m_timeStamp = 0;
    SourceType m_nSourceType = TYPE_UNKNOWN;
    TaskVerb m_nTaskVerb = TASK_NOTHING;
    std::uint32_t m_lDataCRC = 0;
    std::uint32_t m_lSize = 0;
};
static_assert(sizeof(CSendHeader) == CSendHeader::wireSize);

// The last 18 bytes of a message.
class CSendFooter {
public:
    static constexpr std::size_t wireSize = 18;

    CSendFooter() noexcept;
    // From the bytes of a received message, unchecked.
    explicit CSendFooter(std::span<const std::byte, wireSize> bytes) noexcept;

    [[nodiscard]] bool IsValid() const noexcept;
    [[nodiscard]] std::span<const std::byte, wireSize> data() const noexcept;

private:
    std::array<char, wireSize> m_szFooter{};
};
static_assert(sizeof(CSendFooter) == CSendFooter::wireSize);

enum TransferState : std::int32_t { UNKNOWN = 0, HEADER = 1, DATA = 2, FOOTER = 3, FINISHED = 4 };

// One message, sent or received in its three pieces. Its user writes what GetWriteData() hands out
// to the connection, or fills what GetReadBuffer() gives with the bytes that come, and calls
// Transition() when a piece is through. A stream that is not trusted is FrameReader's to read.
class CTransfer {
public:
    // The socket, which may be null, is only kept for GetReplySocket().
    explicit CTransfer(CSocket* socket = nullptr) noexcept : m_pSocket(socket) {}

    // Drops all pieces and what was received; the state is UNKNOWN until the next Send or
    // ResetState().
    void Init() noexcept;
    void Flush() noexcept { Init(); }

    // Each builds the pieces of one message, replacing those of the one before, and starts at
    // HEADER. The result is always 0.
    //
    // An event, stamped with the time of now, as TASK_EVENT of source type 2.
    std::int32_t Send(const GW_EVENT& event);
    // A text or ready data under the given header, whose size and checksum are set from the data.
    std::int32_t Send(CSendHeader header, const char* text, std::size_t length);
    std::int32_t Send(CSendHeader header, std::unique_ptr<CMemArchive> data);
    // The header alone, as it is given.
    std::int32_t Send(const CSendHeader& header);

    // The piece to be written in this state. In DATA without a data piece it moves on to FOOTER;
    // null before a Send and when all is handed out. Owned by this object until the next Send; its
    // bytes are taken with Read or looked at with Bytes().
    [[nodiscard]] CMemArchive* GetWriteData();

    // The room for the piece to be received in this state, which the caller fills whole: 40 bytes
    // in HEADER, 18 in FOOTER, and in DATA as many as the header received before says. Empty in the
    // other states, and in DATA when that header is not valid or says more than a FrameReader
    // accepts by default. The bytes stay until the next message overwrites them or a Send, Init()
    // or Flush() drops them; nothing in them is checked.
    [[nodiscard]] std::span<std::byte> GetReadBuffer();
    // The size of the buffer given last.
    [[nodiscard]] std::int32_t GetBytesToRead() const noexcept { return m_nBytesToRead; }

    // Moves to the next state, which it returns; FINISHED stays, UNKNOWN gives 0.
    TransferState Transition();
    // Begins at the header: the pieces are handed out again, or a message is received.
    void ResetState() noexcept;
    [[nodiscard]] TransferState GetState() const noexcept { return m_nState; }

    // The pieces as built; header and footer are only there when IsValid().
    [[nodiscard]] bool IsValid() const noexcept;
    [[nodiscard]] CSendHeader GetSendHeader() const noexcept;
    [[nodiscard]] CSendFooter GetSendFooter() const noexcept;
    [[nodiscard]] const CMemArchive* GetEventArchive() const noexcept { return m_pEventData.get(); }
    [[nodiscard]] CSocket* GetReplySocket() const noexcept { return m_pSocket; }

private:
    [[nodiscard]] std::span<std::byte> dataBuffer();

    std::int32_t m_nBytesToRead = 0;
    TransferState m_nState = UNKNOWN;
    std::unique_ptr<CMemArchive> m_pHdrData;
    std::unique_ptr<CMemArchive> m_pEventData;
    std::unique_ptr<CMemArchive> m_pFooterData;
    std::array<std::byte, CSendHeader::wireSize> m_pHdrBuffer{};
    std::vector<std::byte> m_pDataBuffer;
    std::array<std::byte, CSendFooter::wireSize> m_pFooterBuffer{};
    CSocket* m_pSocket;
};
