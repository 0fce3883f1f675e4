// The event record and its contexts.
//
// Records are plain values: copying is deep, equality is by content. An absent optional part
// equals an empty one, because that is what a reader of the event archive gets.
#pragma once

#include "libevrep/DeepPtr.h"
#include "libevrep/IQELHeaderString.h"
#include "libevrep/ReportableEvent.h"
#include "libevrep/StringValuePairList.h"
#include "libevrep/storage.h"
#include "libevrep/utf.h"

#include <array>
#include <cstdint>
#include <vector>

// The accessors of one text field, in their four forms:
//   set<Name>      takes narrow or wide text; null leaves the field as it is
//   getAnsi<Name>  the narrow text, or `fallback` when the field is empty
//   getWide<Name>  the wide text, or `fallback` when the field is empty
//   getUTF8<Name>  as getUTF8 of utf.h; false when the field is empty
// A macro, because the other programs call them by these names: 14 fields, 70 functions that only
// differ in the name.
#define GW_TEXT_ACCESSORS(Name, field)                                                             \
    void set##Name(const char* text) {                                                             \
        (field).SetValue(text);                                                                    \
    }                                                                                              \
    void set##Name(const wchar_t* text) {                                                          \
        (field).SetValue(text);                                                                    \
    }                                                                                              \
    [[nodiscard]] const char* getAnsi##Name(const char* fallback) const {                          \
        return *(field).GetAnsiValue() != '\0' ? (field).GetAnsiValue() : fallback;                \
    }                                                                                              \
    [[nodiscard]] const wchar_t* getWide##Name(const wchar_t* fallback) const {                    \
        return *(field).GetWideValue() != L'\0' ? (field).GetWideValue() : fallback;               \
    }                                                                                              \
    [[nodiscard]] bool getUTF8##Name(iconv_t handle, char* buffer, std::size_t& length) const {    \
        return getUTF8(handle, (field).GetWideValue(), buffer, length);                            \
    }

// Where the event happened. Nothing in this library fills it; a reporter that needs it does.
struct GW_COMMON_CONTEXT {
    IQELHeaderString m_szComputerName;
    IQELHeaderString m_szIPAddress;
    IQELHeaderString m_szMacAddress;
    std::int32_t m_tmLocal = 0; // seconds since the epoch, low 32 bits
    std::int32_t m_tmGMT = 0;
    IQELHeaderString m_szOSPlatform;
    IQELHeaderString m_szOSVersion;

    GW_TEXT_ACCESSORS(ComputerName, m_szComputerName)
    GW_TEXT_ACCESSORS(IPAddress, m_szIPAddress)
    GW_TEXT_ACCESSORS(MacAddress, m_szMacAddress)
    GW_TEXT_ACCESSORS(OSPlatform, m_szOSPlatform)
    GW_TEXT_ACCESSORS(OSVersion, m_szOSVersion)
    bool operator==(const GW_COMMON_CONTEXT&) const = default;
};

// Who reported it. Reporter::reportEvent sets the two texts.
struct GW_EVENT_CONTEXT {
    IQELHeaderString m_szSubSystemName;
    IQELHeaderString m_szSubSystemVersion;
    std::uint32_t m_Severity = 0;

    GW_TEXT_ACCESSORS(SubSystemName, m_szSubSystemName)
    GW_TEXT_ACCESSORS(SubSystemVersion, m_szSubSystemVersion)
    bool operator==(const GW_EVENT_CONTEXT&) const = default;
};

struct GW_MANAGEMENT_CONTEXT {
    Reason m_iReasonID = Reason_Null;

    bool operator==(const GW_MANAGEMENT_CONTEXT&) const = default;
};

// A find of the content scanner.
struct GW_SCAN_CONTEXT {
    IQELHeaderString m_szDatVersion;
    IQELHeaderString m_szEngineVersion;
    IQELHeaderString m_szScanRule;
    IQELHeaderString m_szScanRuleType;
    IQELHeaderString m_szScannedObject;
    IQELHeaderString m_szUser;
    std::int32_t m_ActionTaken = 0;

    GW_TEXT_ACCESSORS(DatVersion, m_szDatVersion)
    GW_TEXT_ACCESSORS(EngineVersion, m_szEngineVersion)
    GW_TEXT_ACCESSORS(ScanRule, m_szScanRule)
    GW_TEXT_ACCESSORS(ScanRuleType, m_szScanRuleType)
    GW_TEXT_ACCESSORS(ScannedObject, m_szScannedObject)
    GW_TEXT_ACCESSORS(User, m_szUser)
    bool operator==(const GW_SCAN_CONTEXT&) const = default;
};

struct GW_MAIL {
    std::int32_t m_lTotalMails = 0;
    std::array<std::int32_t, 14> m_lMessageSizeDistribution{};
    std::int32_t m_lTotalAttachmentSize = 0;
    DeepPtr<StringValuePairList> m_pAttachments;

    bool operator==(const GW_MAIL&) const = default;
};

struct GW_HTTP {
    std::int32_t m_lBytesTransferred = 0;
    std::int32_t m_lTotalGets = 0;
    DeepPtr<StringValuePairList> m_pExtensions;

    bool operator==(const GW_HTTP&) const = default;
};

struct GW_FTP {
    std::int32_t m_lBytesTransferred = 0;
    std::int32_t m_lTotalTransfers = 0;
    std::int32_t m_lTotalDroppedSessions = 0;
    DeepPtr<StringValuePairList> m_pExtensions;

    bool operator==(const GW_FTP&) const = default;
};

// Traffic of one protocol, or of all of them.
struct GW_STATS_CONTEXT {
    IQELHeaderString m_szDomainName;
    GW_PROTO m_Protocol = GW_PROT_NULL;
    GW_MAIL m_inSmtp;
    GW_MAIL m_outSmtp;
    GW_MAIL m_inPop3;
    GW_MAIL m_outPop3;
    GW_FTP m_inFtp;
    GW_FTP m_outFtp;
    GW_HTTP m_http;

    GW_TEXT_ACCESSORS(DomainName, m_szDomainName)
    bool operator==(const GW_STATS_CONTEXT&) const = default;
};

#undef GW_TEXT_ACCESSORS

// One happening. The discriminant tells which of the three detail contexts counts; the others are
// neither compared nor archived. A discriminant may stand without its context
// (Reporter::createEvent leaves the statistics to its caller), which then counts as an empty one.
struct GW_EVENT {
    std::int32_t m_iStructVersion = 0;
    ReportableEvent m_EventID = EVENT_OTHER_OK;
    std::int32_t m_intendedAudience = 0;
    GW_COMMON_CONTEXT m_CommonContext;
    GW_EVENT_CONTEXT m_EventContext;
    CPropertyBag m_PropertyBag;
    GW_UNION_DISCRIMINANT m_iUnionDiscriminant = UNDECIDED;
    DeepPtr<GW_MANAGEMENT_CONTEXT> m_ManagementContext;
    DeepPtr<GW_SCAN_CONTEXT> m_ScanContext;
    DeepPtr<GW_STATS_CONTEXT> m_StatsContext;

    // The context, owned by the event; null when the discriminant names another or it is absent.
    [[nodiscard]] const GW_MANAGEMENT_CONTEXT* getManagementContext() const noexcept;
    [[nodiscard]] GW_MANAGEMENT_CONTEXT* getManagementContext() noexcept;
    [[nodiscard]] const GW_SCAN_CONTEXT* getScanContext() const noexcept;
    [[nodiscard]] GW_SCAN_CONTEXT* getScanContext() noexcept;
    [[nodiscard]] const GW_STATS_CONTEXT* getStatsContext() const noexcept;
    [[nodiscard]] GW_STATS_CONTEXT* getStatsContext() noexcept;

    bool operator==(const GW_EVENT& other) const;
};

// Which events a consumer asks for.
struct GW_FILTER {
    std::uint32_t m_fSeverity = 0; // mask
    std::uint32_t m_fAudience = 0; // mask
    std::vector<ReportableEvent> m_eventAlways;
    std::vector<ReportableEvent> m_eventNever;

    // A filter of its own with the same content.
    [[nodiscard]] GW_FILTER Copy() const { return *this; }
    bool operator==(const GW_FILTER&) const = default;
};
