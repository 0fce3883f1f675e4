#include "fwall/hexesc.h"
#include "retryq/Commands.h"
#include "retryq/Json.h"
#include "retryq/SpoolCheck.h"
#include "retryq/Table.h"

#include "email/site/DomainRelay.h"
#include "email/site/mailscanGlobals.h"

#include <algorithm>
#include <iterator>
#include <set>

namespace Retryq {

namespace {

using Weight = Finding::Weight;

constexpr std::size_t kShown = 512;

// Prints findings as they come and remembers the worst.
class Judge {
public:
    explicit Judge(const Context& context) : context_(context) {}

    void add(const char* about, const Finding& finding) {
        const bool stop = finding.weight == Weight::Stop;
        status_ = std::max(status_, stop ? kStop : kTrouble);
        if (context_.json) {
            writeJson(context_.screen.out, {{"check", about},
                                            {"level", stop ? "stop" : "warning"},
                                            {"line", finding.line},
                                            {"text", finding.text}});
            return;
        }
        context_.screen.out << context_.screen.paint(stop ? "STOP     " : "WARNING  ",
                                                     stop ? Colour::Red : Colour::Yellow)
                            << (finding.line == 0 ? ""
                                                  : "line " + std::to_string(finding.line) + ": ")
                            << finding.text << '\n';
    }

    void addAll(const char* about, const std::vector<Finding>& findings) {
        for (const Finding& finding : findings) {
            add(about, finding);
        }
    }

    [[nodiscard]] Status status() const noexcept { return status_; }

private:
    const Context& context_;
    Status status_ = kDone;
};

std::vector<Finding> tableFindings(const RuleTable& table) {
    std::vector<Finding> findings = table.faults();
    std::ranges::copy(table.advice(), std::back_inserter(findings));
    std::ranges::stable_sort(findings, {}, &Finding::line);
    return findings;
}

void title(const Context& context, const std::string& text) {
    if (!context.json) {
        context.screen.out << context.screen.paint(text, Colour::Bold) << '\n';
    }
}

void reportSettingsInForce(const Context& context) {
    title(context, "Settings in force");
    if (!context.json) {
        reportSettings(context);
        return;
    }
    for (const Setting& setting : settings()) {
        if (!setting.repeats()) {
            const std::int32_t line = context.table.line(setting);
            writeJson(context.screen.out, {{"check", "setting"},
                                           {"key", setting.key},
                                           {"value", context.table.value(setting)},
                                           {"unit", setting.unit},
                                           {"default", line == 0},
                                           {"line", line}});
        }
    }
}

// Looks the names of one relay line up, as retryer does at its start.
std::string relayServers(const cfgrec& record) {
    std::array<char, 2> every{"*"};
    DomainRelay relay;
    relay.AddDomain(every.data(), record.argv + 1, record.argc - 1);
    IPaddressList servers;
    eventId event = EV_NONE;
    relay.getAddresses("", servers, IPaddressList::kCapacity, event);
    std::string text;
    for (int i = 0; i < servers.count(); ++i) {
        std::array<char, IPaddress::kTextSize> address{};
        servers.addr(i).format(address.data());
        text += std::string(" ") + address.data();
    }
    return text;
}

void reportRelay(const Context& context, Judge& judge, const char* key, const cfgrec& record) {
    const std::string servers = relayServers(record);
    const std::string text =
        std::string(key) + " " + printable(record.argv[0], kShown) + ":" + servers;
    if (servers.empty()) {
        judge.add("relay", {Weight::Warning, record.ln,
                            text + " no server resolves to another host; " +
                                (mailscanGlobals::dnsRules == 0 ? "the line has no effect"
                                                                : "mail for it waits")});
    } else if (context.json) {
        writeJson(context.screen.out, {{"check", "relay"}, {"line", record.ln}, {"text", text}});
    } else {
        context.screen.out << "line " << record.ln << ": " << text << '\n';
    }
}

void reportRelays(const Context& context, Judge& judge) {
    for (const char* const key : {"domain-relay", "fallback-relay"}) {
        cfgrec* record = cfg_get(key, context.table.records());
        if (record != nullptr) {
            title(context, std::string(key) == "domain-relay" ? "Relays" : "Fallback relays");
        }
        for (; record != nullptr; record = cfg_next(key, record)) {
            reportRelay(context, judge, key, *record);
        }
    }
}

// Mail for a domain that names such an address as its exchanger is sent to this host.
void reportOwnAddresses(Judge& judge) {
    for (const IPaddress own : HostList::interfaceAddresses()) {
        if (!HostList::isLocal(own)) {
            std::array<char, IPaddress::kTextSize> address{};
            own.format(address.data());
            judge.add("own-address",
                      {Weight::Warning, 0,
                       std::string(address.data()) +
                           ": an address of this host that /etc/hosts lacks; foreign "
                           "domains can lead mail to it"});
        }
    }
}

std::string prefixOf(const cfgrec& record) {
    switch (record.flags) {
    case CFG_DENY:
        return "deny-";
    case CFG_PERMIT:
        return "permit-";
    case CFG_ABSORB:
        return "absorb-";
    default:
        return {};
    }
}

// Keywords that other programs of the gateway may read, so that a wrong one can be spotted.
void reportOtherKeys(const Context& context) {
    std::set<std::string> others;
    for (const cfgrec* record = context.table.records(); record != nullptr; record = record->next) {
        const auto known = [&](const Setting& s) { return std::string_view(s.key) == record->op; };
        if (std::ranges::none_of(settings(), known)) {
            others.insert(prefixOf(*record) + printable(record->op, kShown));
        }
    }
    if (others.empty() || context.json) {
        return;
    }
    context.screen.out << "Not read by retryer:";
    for (const std::string& key : others) {
        context.screen.out << ' ' << key;
    }
    context.screen.out << '\n';
}

void reportSpool(const Context& context, Judge& judge, const char* name, const SpoolReport& spool) {
    title(context, std::string(name) + " " + spool.directory);
    if (context.json) {
        writeJson(context.screen.out, {{"check", "spool"},
                                       {"directory", spool.directory},
                                       {"owner", spool.owner},
                                       {"messages", spool.messages},
                                       {"free_bytes", spool.freeBytes},
                                       {"free_inodes", spool.freeInodes}});
    } else if (!spool.owner.empty()) {
        context.screen.out << spool.owner << ", " << spool.messages << " messages, "
                           << sizeText(static_cast<std::int64_t>(spool.freeBytes)) << " free";
        if (spool.totalInodes != 0) {
            context.screen.out << ", " << spool.freeInodes << " files free";
        }
        context.screen.out << '\n';
    }
    judge.addAll("spool", spool.findings);
}

void reportVerdict(const Context& context, Status status) {
    if (context.json) {
        writeJson(context.screen.out, {{"check", "verdict"}, {"status", static_cast<int>(status)}});
        return;
    }
    constexpr std::array kWords{
        "All is well.", "There are warnings.",
        "retryer would stop: mend this first. rulbex-table(5) has a sample and every key."};
    constexpr std::array kColours{Colour::Green, Colour::Yellow, Colour::Red};
    const auto at = static_cast<std::size_t>(status);
    context.screen.out << context.screen.paint(kWords.at(at), kColours.at(at)) << '\n';
}

} // namespace

int check(const Context& context) {
    Judge judge(context);
    const RuleTable& table = context.table;
    title(context, "Rule table " + table.path() + " (" + table.placeReason() + "), service " +
                       printable(table.service(), kShown));
    judge.addAll("rule-table", tableFindings(table));
    if (!table.stops()) {
        reportOtherKeys(context);
        reportSettingsInForce(context);
        reportRelays(context, judge);
        reportOwnAddresses(judge);
        reportSpool(context, judge, "Deferred spool",
                    checkSpool(mailscanGlobals::deferred_mail_path(),
                               Email::QueuedMessage::Queue::Deferred));
        reportSpool(
            context, judge, "Outgoing spool",
            checkSpool(mailscanGlobals::outgoing_mail(), Email::QueuedMessage::Queue::Outgoing));
    }
    reportVerdict(context, judge.status());
    return judge.status();
}

} // namespace Retryq
