#include "random_event.h"

namespace {

std::int32_t number(Random& random) {
    static constexpr std::int32_t edges[] = {0, 1, -1, 2147483647, -2147483647 - 1};
    const std::uint32_t choice = below(random, 10);
    return choice < 5 ? edges[choice] : static_cast<std::int32_t>(random());
}

wchar_t character(Random& random) {
    static constexpr std::uint32_t limits[] = {0x7F, 0xFF, 0xD7FF, 0x10FFFF};
    return static_cast<wchar_t>(1 + below(random, limits[below(random, 4)]));
}

std::wstring wideText(Random& random) {
    std::wstring text(below(random, 4) == 0 ? 0 : below(random, 40), L'\0');
    for (wchar_t& c : text)
        c = character(random);
    return text;
}

std::string narrowText(Random& random) {
    std::string text(below(random, 60), '\0');
    for (char& c : text)
        c = static_cast<char>(below(random, 256)); // zero included
    return text;
}

void fill(Random& random, std::initializer_list<IQELHeaderString*> texts) {
    for (IQELHeaderString* text : texts)
        text->SetValue(wideText(random).c_str());
}

void fillBag(Random& random, CPropertyBag& bag) {
    std::string name = below(random, 4) == 0 ? "" : narrowText(random);
    bag = CPropertyBag(std::move(name), number(random));
    for (std::uint32_t count = below(random, 12); count > 0; --count) {
        const auto key = static_cast<PropEnum>(
            below(random, 5) == 0 ? random() : below(random, EPROP_REAL_MAX + 1));
        switch (below(random, 4)) {
        case 0:
            bag.Set(key, number(random));
            break;
        case 1:
            bag.Set(key, static_cast<long>(number(random)));
            break;
        case 2:
            bag.Set(key, std::make_unique<CStringStore>(key, narrowText(random)));
            break;
        default:
            bag.Set(key, std::make_unique<CWideStringStore>(key, wideText(random) + L'\0'));
        }
    }
}

DeepPtr<StringValuePairList> pairs(Random& random) {
    DeepPtr<StringValuePairList> list;
    if (below(random, 2) == 0)
        return list;
    list.create();
    for (std::uint32_t count = below(random, 5); count > 0; --count) {
        std::string name = narrowText(random); // first: compilers differ in the order of arguments
        list->Add(std::move(name), number(random));
    }
    return list;
}

GW_MAIL mail(Random& random) {
    GW_MAIL result;
    result.m_lTotalMails = number(random);
    for (auto& counter : result.m_lMessageSizeDistribution)
        counter = number(random);
    result.m_lTotalAttachmentSize = number(random);
    result.m_pAttachments = pairs(random);
    return result;
}

GW_FTP ftp(Random& random) {
    GW_FTP result;
    result.m_lBytesTransferred = number(random);
    result.m_lTotalTransfers = number(random);
    result.m_lTotalDroppedSessions = number(random);
    result.m_pExtensions = pairs(random);
    return result;
}

void fillStats(Random& random, GW_STATS_CONTEXT& stats) {
    fill(random, {&stats.m_szDomainName});
    stats.m_Protocol = static_cast<GW_PROTO>(below(random, 7));
    for (GW_MAIL* part : {&stats.m_inSmtp, &stats.m_outSmtp, &stats.m_inPop3, &stats.m_outPop3})
        *part = mail(random);
    stats.m_inFtp = ftp(random);
    stats.m_outFtp = ftp(random);
    stats.m_http.m_lBytesTransferred = number(random);
    stats.m_http.m_lTotalGets = number(random);
    stats.m_http.m_pExtensions = pairs(random);
}

void fillDetail(Random& random, GW_EVENT& event) {
    event.m_iUnionDiscriminant = static_cast<GW_UNION_DISCRIMINANT>(below(random, 5));
    if (below(random, 8) == 0)
        return; // a discriminant without its context
    event.m_ManagementContext.create().m_iReasonID = static_cast<Reason>(number(random));
    if (event.m_iUnionDiscriminant == SCAN_CONTEXT) {
        GW_SCAN_CONTEXT& scan = event.m_ScanContext.create();
        fill(random, {&scan.m_szDatVersion, &scan.m_szEngineVersion, &scan.m_szScanRule,
                      &scan.m_szScanRuleType, &scan.m_szScannedObject, &scan.m_szUser});
        scan.m_ActionTaken = number(random);
    }
    if (event.m_iUnionDiscriminant == STATS_CONTEXT)
        fillStats(random, event.m_StatsContext.create());
}

} // namespace

std::uint32_t below(Random& random, std::uint32_t limit) {
    return static_cast<std::uint32_t>(random() % limit);
}

GW_EVENT randomEvent(Random& random) {
    GW_EVENT event;
    event.m_iStructVersion = number(random);
    event.m_EventID = static_cast<ReportableEvent>(number(random));
    event.m_intendedAudience = number(random);
    GW_COMMON_CONTEXT& common = event.m_CommonContext;
    fill(random, {&common.m_szComputerName, &common.m_szIPAddress, &common.m_szMacAddress,
                  &common.m_szOSPlatform, &common.m_szOSVersion});
    common.m_tmLocal = number(random);
    common.m_tmGMT = number(random);
    fill(random,
         {&event.m_EventContext.m_szSubSystemName, &event.m_EventContext.m_szSubSystemVersion});
    event.m_EventContext.m_Severity = static_cast<std::uint32_t>(random());
    fillBag(random, event.m_PropertyBag);
    fillDetail(random, event);
    return event;
}
