#include "libevrep/EventArchive.h"

#include <concepts>
#include <type_traits>
#include <utility>

namespace {

// One list of fields a record serves both directions: a Writer and a Reader walk it, so that
// reading cannot drift from writing.
template<class R, class T>
concept Either = std::same_as<std::remove_const_t<R>, T>;

void eachField(auto& step, Either<GW_COMMON_CONTEXT> auto& c) {
    // The times stand last, other than in the record: the other programs expect them there.
    step(c.m_szComputerName, c.m_szIPAddress, c.m_szMacAddress, c.m_szOSPlatform, c.m_szOSVersion,
         c.m_tmLocal, c.m_tmGMT);
}

void eachField(auto& step, Either<GW_EVENT_CONTEXT> auto& c) {
    step(c.m_szSubSystemName, c.m_szSubSystemVersion, c.m_Severity);
}

void eachField(auto& step, Either<GW_MANAGEMENT_CONTEXT> auto& c) {
    step(c.m_iReasonID);
}

void eachField(auto& step, Either<GW_SCAN_CONTEXT> auto& c) {
    step(c.m_szDatVersion, c.m_szEngineVersion, c.m_szScanRule, c.m_szScanRuleType,
         c.m_szScannedObject, c.m_szUser, c.m_ActionTaken);
}

void eachField(auto& step, Either<GW_MAIL> auto& m) {
    step(m.m_lTotalMails, m.m_lMessageSizeDistribution, m.m_lTotalAttachmentSize, m.m_pAttachments);
}

void eachField(auto& step, Either<GW_HTTP> auto& h) {
    step(h.m_lBytesTransferred, h.m_lTotalGets, h.m_pExtensions);
}

void eachField(auto& step, Either<GW_FTP> auto& f) {
    step(f.m_lBytesTransferred, f.m_lTotalTransfers, f.m_lTotalDroppedSessions, f.m_pExtensions);
}

void eachField(auto& step, Either<GW_STATS_CONTEXT> auto& s) {
    step(s.m_szDomainName, s.m_Protocol, s.m_inSmtp, s.m_outSmtp, s.m_inPop3, s.m_outPop3,
         s.m_inFtp, s.m_outFtp, s.m_http);
}

void eachField(auto& step, Either<GW_FILTER> auto& f) {
    step(f.m_fSeverity, f.m_fAudience, f.m_eventAlways, f.m_eventNever);
}

void eachField(auto& step, Either<GW_EVENT> auto& e) {
    step(e.m_iStructVersion, e.m_EventID, e.m_intendedAudience, e.m_CommonContext, e.m_EventContext,
         e.m_PropertyBag, e.m_iUnionDiscriminant);
    // Only the part that the discriminant names is sent; any other value has none.
    switch (e.m_iUnionDiscriminant) {
    case MANAGEMENT_CONTEXT:
        return step(e.m_ManagementContext);
    case SCAN_CONTEXT:
        return step(e.m_ScanContext);
    case STATS_CONTEXT:
        return step(e.m_StatsContext);
    case UNDECIDED:
        break;
    }
}

class Writer {
public:
    explicit Writer(CArchive& archive) : archive_(archive) {}

    void operator()(const auto&... fields) { (one(fields), ...); }

private:
    void one(const std::int32_t& value) { archive_ << value; }
    void one(const std::uint32_t& value) { archive_ << value; }
    void one(const IQELHeaderString& text) { archive_ << text.GetWideValue(); }
    void one(const CPropertyBag& bag) { bag.Write(archive_); }
    void one(const StringValuePairList& list) { archive_ << list; }
    void one(const std::array<std::int32_t, 14>& counters) {
        // Without a count: a mail record has 14 counters, always.
        archive_.Write(counters.data(), sizeof counters);
    }
    void one(const std::vector<ReportableEvent>& codes) {
        one(static_cast<std::uint32_t>(codes.size()));
        for (const ReportableEvent code : codes)
            one(code);
    }
    template<class T>
    void one(const DeepPtr<T>& part) {
        // A part that was never made goes out with its default values: the reader expects one.
        one(part.orDefault());
    }
    template<class T>
    void one(const T& field) {
        if constexpr (std::is_enum_v<T>)
            one(static_cast<std::int32_t>(field));
        else
            eachField(*this, field);
    }

    CArchive& archive_;
};

class Reader {
public:
    explicit Reader(CArchive& archive) : archive_(archive) {}

    void operator()(auto&... fields) { (one(fields), ...); }

private:
    void one(std::int32_t& value) { archive_ >> value; }
    void one(std::uint32_t& value) { archive_ >> value; }
    void one(IQELHeaderString& text) {
        std::wstring wide;
        archive_ >> wide;
        if (!archive_.Failed())
            text.SetValue(wide.c_str());
    }
    void one(CPropertyBag& bag) {
        // An empty name is sent as nothing and must not leave the usual one standing.
        bag = CPropertyBag("", 0);
        bag.Read(archive_);
    }
    void one(StringValuePairList& list) { archive_ >> list; }
    void one(std::array<std::int32_t, 14>& counters) {
        archive_.Read(counters.data(), sizeof counters);
    }
    void one(std::vector<ReportableEvent>& codes) {
        // The count has been held against what is left to read.
        codes.resize(archive_.ReadCount(sizeof(std::int32_t)));
        for (ReportableEvent& code : codes)
            one(code);
    }
    template<class T>
    void one(DeepPtr<T>& part) {
        one(part.create());
    }
    template<class T>
    void one(T& field) {
        if constexpr (std::is_enum_v<T>) {
            auto value = static_cast<std::int32_t>(field);
            one(value);
            field = static_cast<T>(value);
        } else {
            eachField(*this, field);
        }
    }

    CArchive& archive_;
};

template<class Record>
CArchive& insert(CArchive& archive, const Record& record) {
    Writer writer(archive);
    eachField(writer, record);
    return archive;
}

template<class Record>
CArchive& extract(CArchive& archive, Record& record) {
    // The caller's record stays as it was when the bytes end in the middle.
    Record fresh;
    Reader reader(archive);
    eachField(reader, fresh);
    if (!archive.Failed())
        record = std::move(fresh);
    return archive;
}

constexpr std::size_t smallestPair = 8; // an empty name and its count

} // namespace

CArchive& operator<<(CArchive& archive, const GW_EVENT& event) {
    return insert(archive, event);
}

CArchive& operator>>(CArchive& archive, GW_EVENT& event) {
    return extract(archive, event);
}

CArchive& operator<<(CArchive& archive, const GW_SCAN_CONTEXT& context) {
    return insert(archive, context);
}

CArchive& operator>>(CArchive& archive, GW_SCAN_CONTEXT& context) {
    return extract(archive, context);
}

CArchive& operator<<(CArchive& archive, const GW_STATS_CONTEXT& context) {
    return insert(archive, context);
}

CArchive& operator>>(CArchive& archive, GW_STATS_CONTEXT& context) {
    return extract(archive, context);
}

CArchive& operator<<(CArchive& archive, const GW_MAIL& counts) {
    return insert(archive, counts);
}

CArchive& operator>>(CArchive& archive, GW_MAIL& counts) {
    return extract(archive, counts);
}

CArchive& operator<<(CArchive& archive, const GW_HTTP& counts) {
    return insert(archive, counts);
}

CArchive& operator>>(CArchive& archive, GW_HTTP& counts) {
    return extract(archive, counts);
}

CArchive& operator<<(CArchive& archive, const GW_FTP& counts) {
    return insert(archive, counts);
}

CArchive& operator>>(CArchive& archive, GW_FTP& counts) {
    return extract(archive, counts);
}

CArchive& operator<<(CArchive& archive, const GW_FILTER& filter) {
    return insert(archive, filter);
}

CArchive& operator>>(CArchive& archive, GW_FILTER& filter) {
    return extract(archive, filter);
}

CArchive& operator<<(CArchive& archive, const StringValuePairList& list) {
    archive << static_cast<std::uint32_t>(list.size());
    for (const auto& pair : list)
        archive << pair->m_szName << pair->m_lCount;
    return archive;
}

CArchive& operator>>(CArchive& archive, StringValuePairList& list) {
    StringValuePairList fresh;
    for (std::size_t left = archive.ReadCount(smallestPair); left > 0 && !archive.Failed();
         --left) {
        std::string name;
        std::int32_t count = 0;
        archive >> name >> count;
        fresh.Add(std::move(name), count);
    }
    if (!archive.Failed())
        list = std::move(fresh);
    return archive;
}
