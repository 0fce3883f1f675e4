#include "EventListing.h"

#include "libevrep/EventArchive.h"
#include "libevrep/eventNames.h"

#include <algorithm>

namespace {

// Of the data of a message that is no event; enough to recognise it.
constexpr std::size_t shownData = 1024;

std::string numbered(std::string_view name, std::string_view what, std::int64_t number) {
    return name.empty() ? std::string(what) + ' ' + std::to_string(number) : std::string(name);
}

// The mail library gives its delivery events numbers of their own, below those of the appliance.
std::string codeName(std::int32_t code) {
    constexpr std::int32_t firstDelivery = 101;
    constexpr std::int32_t lastDelivery = 128;
    if (code >= firstDelivery && code <= lastDelivery)
        return "delivery event";
    return std::string(eventName(code));
}

void put(RecordWriter& writer, std::string_view name, const IQELHeaderString& text) {
    if (*text.GetWideValue() != L'\0')
        writer.text(name, std::wstring_view(text.GetWideValue()));
}

void put(RecordWriter& writer, const GW_COMMON_CONTEXT& context) {
    if (context == GW_COMMON_CONTEXT())
        return;
    writer.open("common");
    put(writer, "computer", context.m_szComputerName);
    put(writer, "ip", context.m_szIPAddress);
    put(writer, "mac", context.m_szMacAddress);
    put(writer, "platform", context.m_szOSPlatform);
    put(writer, "os_version", context.m_szOSVersion);
    writer.number("local_time", context.m_tmLocal);
    writer.number("gmt", context.m_tmGMT);
    writer.close();
}

void put(RecordWriter& writer, const CAbstractStorageType& value) {
    const std::string name = numbered(propertyName(value.m_nIndex), "key", value.m_nIndex);
    switch (value.GetType()) {
    case ST_INT:
    case ST_LONG:
        return writer.typed(name, value.GetType() == ST_INT ? "int" : "long",
                            std::int64_t{static_cast<std::int32_t>(value)});
    case ST_STRING:
        return writer.typed(name, "string",
                            std::wstring_view(decodeText(static_cast<std::string>(value))));
    default:
        return writer.typed(name, "wstring", std::wstring_view(static_cast<std::wstring>(value)));
    }
}

void put(RecordWriter& writer, const CPropertyBag& bag) {
    writer.text("bag", bag.Identifier());
    writer.number("bag_version", bag.Version());
    writer.open("properties");
    bag.ForEach([&writer](const CAbstractStorageType& value) { put(writer, value); });
    writer.close();
}

void put(RecordWriter& writer, const GW_SCAN_CONTEXT& scan) {
    writer.open("scan");
    put(writer, "dat_version", scan.m_szDatVersion);
    put(writer, "engine_version", scan.m_szEngineVersion);
    put(writer, "rule", scan.m_szScanRule);
    put(writer, "rule_type", scan.m_szScanRuleType);
    put(writer, "object", scan.m_szScannedObject);
    put(writer, "user", scan.m_szUser);
    writer.number("action", scan.m_ActionTaken);
    writer.close();
}

void put(RecordWriter& writer, std::string_view name, const DeepPtr<StringValuePairList>& list) {
    writer.open(name);
    for (const auto& pair : list.orDefault())
        writer.number(pair->m_szName, pair->m_lCount);
    writer.close();
}

void put(RecordWriter& writer, std::string_view name, const GW_MAIL& mail) {
    writer.open(name);
    writer.number("mails", mail.m_lTotalMails);
    writer.open("size_distribution");
    for (std::size_t i = 0; i < mail.m_lMessageSizeDistribution.size(); ++i)
        writer.number(std::to_string(i), mail.m_lMessageSizeDistribution[i]);
    writer.close();
    writer.number("attachment_size", mail.m_lTotalAttachmentSize);
    put(writer, "attachments", mail.m_pAttachments);
    writer.close();
}

void put(RecordWriter& writer, std::string_view name, const GW_FTP& ftp) {
    writer.open(name);
    writer.number("bytes", ftp.m_lBytesTransferred);
    writer.number("transfers", ftp.m_lTotalTransfers);
    writer.number("dropped_sessions", ftp.m_lTotalDroppedSessions);
    put(writer, "extensions", ftp.m_pExtensions);
    writer.close();
}

void put(RecordWriter& writer, std::string_view name, const GW_HTTP& http) {
    writer.open(name);
    writer.number("bytes", http.m_lBytesTransferred);
    writer.number("gets", http.m_lTotalGets);
    put(writer, "extensions", http.m_pExtensions);
    writer.close();
}

void put(RecordWriter& writer, const GW_STATS_CONTEXT& stats) {
    writer.open("stats");
    put(writer, "domain", stats.m_szDomainName);
    writer.coded("protocol", stats.m_Protocol, protocolName(stats.m_Protocol));
    put(writer, "in_smtp", stats.m_inSmtp);
    put(writer, "out_smtp", stats.m_outSmtp);
    put(writer, "in_pop3", stats.m_inPop3);
    put(writer, "out_pop3", stats.m_outPop3);
    put(writer, "in_ftp", stats.m_inFtp);
    put(writer, "out_ftp", stats.m_outFtp);
    put(writer, "http", stats.m_http);
    writer.close();
}

void put(RecordWriter& writer, const GW_EVENT& event) {
    writer.coded("event", event.m_EventID, codeName(event.m_EventID));
    const std::uint32_t severity = event.m_EventContext.m_Severity;
    writer.coded("severity", severity, severityName(severity));
    writer.number("audience", event.m_intendedAudience);
    put(writer, "subsystem", event.m_EventContext.m_szSubSystemName);
    put(writer, "subsystem_version", event.m_EventContext.m_szSubSystemVersion);
    writer.number("struct_version", event.m_iStructVersion);
    put(writer, event.m_CommonContext);
    if (const auto* management = event.getManagementContext())
        writer.coded("reason", management->m_iReasonID, reasonName(management->m_iReasonID));
    put(writer, event.m_PropertyBag);
    if (const auto* scan = event.getScanContext())
        put(writer, *scan);
    if (const auto* stats = event.getStatsContext())
        put(writer, *stats);
}

void putHeader(RecordWriter& writer, const CSendHeader& header) {
    writer.number("time", header.GetTimeStamp());
    writer.number("source", header.GetSourceType());
    writer.coded("task", header.GetTask(), taskName(header.GetTask()));
    writer.number("size", header.GetSize());
}

} // namespace

void EventListing::feed(std::span<const std::byte> bytes) {
    reader_.feed(bytes);
    drain();
}

void EventListing::finish() {
    reader_.finish();
    drain();
}

void EventListing::drain() {
    for (;;) {
        const FrameEvent event = reader_.next();
        if (const auto* frame = std::get_if<Frame>(&event))
            list(*frame);
        else if (const auto* fault = std::get_if<FrameDamage>(&event))
            damage(fault->offset, fault->what);
        else
            return;
    }
}

void EventListing::list(const Frame& frame) {
    if (frame.header.GetTask() == CSendHeader::TASK_EVENT)
        return listEvent(frame);
    writer_.begin("message", frame.offset);
    putHeader(writer_, frame.header);
    const auto shown = frame.data.first(std::min(frame.data.size(), shownData));
    writer_.text("data",
                 std::string_view(reinterpret_cast<const char*>(shown.data()), shown.size()));
    writer_.end();
}

void EventListing::listEvent(const Frame& frame) {
    const std::uint64_t dataAt = frame.offset + CSendHeader::wireSize;
    CMemArchive archive(frame.data);
    GW_EVENT event;
    archive >> event;
    if (archive.Failed())
        return damage(dataAt + archive.Position(), std::string("event: ") + archive.Fault());
    writer_.begin("event", frame.offset);
    putHeader(writer_, frame.header);
    put(writer_, event);
    writer_.end();
    if (archive.BytesLeft() > 0)
        damage(dataAt + archive.Position(),
               "event: " + std::to_string(archive.BytesLeft()) + " bytes after its end");
}

void EventListing::damage(std::uint64_t offset, std::string_view what) {
    damaged_ = true;
    writer_.damage(offset, what);
}
