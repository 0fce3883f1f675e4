#include "fwall/hexesc.h"
#include "retryq/ActingAs.h"
#include "retryq/Commands.h"
#include "retryq/HostCheck.h"
#include "retryq/Json.h"
#include "retryq/RelayAccessCheck.h"
#include "retryq/ServiceUnit.h"
#include "retryq/SpoolCheck.h"
#include "retryq/Table.h"

#include "email/site/DomainRelay.h"
#include "email/site/mailscanGlobals.h"
#include "email/telling/DeliveryLog.h"

#include <algorithm>
#include <iostream>
#include <iterator>
#include <limits>
#include <optional>
#include <set>
#include <utility>

namespace Retryq {

namespace {

using Weight = Finding::Weight;

constexpr std::size_t kShown = 512;
constexpr std::size_t kMostNamed = 20; // findings of one kind that are spelt out

// Prints findings as they come and remembers the worst.
class Judge {
public:
    explicit Judge(const Context& context) : context_(context) {}

    void add(const char* about, const Finding& finding) {
        struct Level {
            Status status;
            const char* name;
            const char* label;
            Colour colour;
        };
        constexpr std::array kLevels{
            Level{kTrouble, "warning", "WARNING  ", Colour::Yellow},
            Level{kStop, "stop", "STOP     ", Colour::Red},
            Level{kLosesMail, "loses-mail", "LOSES MAIL\n         ", Colour::Red},
        };
        const Level& level = kLevels.at(static_cast<std::size_t>(finding.weight));
        // The worst finding is the exit status.
        status_ = std::max(status_, level.status);
        if (context_.json) {
            Json object{{"check", about},
                        {"level", level.name},
                        {"line", finding.line},
                        {"text", finding.text}};
            if (!finding.message.empty()) {
                object["message"] = finding.message;
                object["fate"] = finding.fate;
            }
            writeJson(context_.screen.out, object);
            return;
        }
        constexpr int kIndent = 9;
        const std::string line =
            finding.line == 0 ? "" : "line " + std::to_string(finding.line) + ": ";
        const int width = context_.screen.width == 0 ? 0 : context_.screen.width - kIndent;
        context_.screen.out << context_.screen.paint(level.label, level.colour)
                            << wrapped(line + finding.text, width, kIndent) << '\n';
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
        context.screen.out << context.screen.paint(wrapped(text, context.screen.width, 2),
                                                   Colour::Bold)
                           << '\n';
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
    // A table of its own with this line alone, for every domain.
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

// False when the line has no effect.
bool reportRelay(const Context& context, Judge& judge, const char* key, const cfgrec& record) {
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
    return !servers.empty();
}

// True when every domain that the later pattern matches is matched by the earlier one.
bool covers(std::string_view earlier, std::string_view later) {
    const bool below = later.starts_with("*.");
    if (earlier == "*" || later == "*") {
        return earlier == "*";
    }
    return (earlier.starts_with("*.") || !below) &&
           DRinfo(std::string(earlier).c_str())
               .matches(std::string(later.substr(below ? 2 : 0)).c_str());
}

// Lines that have a server, the first one first: the first that matches decides.
void reportShadowed(Judge& judge, const std::vector<const cfgrec*>& lines) {
    for (auto later = lines.begin(); later != lines.end(); ++later) {
        const auto earlier = std::find_if(lines.begin(), later, [&](const cfgrec* line) {
            return covers(line->argv[0], (*later)->argv[0]);
        });
        if (earlier != later) {
            judge.add("relay",
                      {Weight::Warning, (*later)->ln,
                       printable((*later)->argv[0], kShown) + " is never asked: line " +
                           std::to_string((*earlier)->ln) + ", " +
                           printable((*earlier)->argv[0], kShown) + ", matches all of it before"});
        }
    }
}

void reportRelays(const Context& context, Judge& judge) {
    for (const char* const key : {"domain-relay", "fallback-relay"}) {
        cfgrec* record = cfg_get(key, context.table.records());
        if (record != nullptr) {
            title(context, std::string(key) == "domain-relay" ? "Relays" : "Fallback relays");
        }
        std::vector<const cfgrec*> usable;
        for (; record != nullptr; record = cfg_next(key, record)) {
            if (reportRelay(context, judge, key, *record)) {
                usable.push_back(record);
            }
        }
        reportShadowed(judge, usable);
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

// Of the instances that somebody has set up; with none, the template's.
std::vector<ServiceUnit> unitsInUse() {
    std::vector<ServiceUnit> units;
    for (const std::string& instance : ServiceUnit::instances()) {
        if (auto unit = ServiceUnit::read(instance)) {
            units.push_back(std::move(*unit));
        }
    }
    if (units.size() > 1) {
        units.erase(units.begin()); // it is never started as such
    }
    return units;
}

// Whose rights the walkers have.
std::string walkerUser(const std::string& wanted) {
    const std::vector<ServiceUnit> units = unitsInUse();
    return wanted.empty() && !units.empty() ? units.front().user() : wanted;
}

struct Spools {
    SpoolReport deferred;
    SpoolReport outgoing;
};

// All but the look at the spools is done with the rights of who asked.
Spools judgedAs(Judge& judge, const std::string& user, const std::string& group, std::size_t most) {
    using Queue = Email::QueuedMessage::Queue;
    const ActingAs walker(user, group);
    if (walker.failed()) {
        judge.add("user", {Weight::Warning, 0,
                           "the user " + printable(user, kShown) +
                               (group.empty() ? "" : " or the group " + printable(group, kShown)) +
                               " does not exist: the spools are judged for root"});
    }
    return {checkSpool(mailscanGlobals::deferred_mail_path(), Queue::Deferred, most),
            checkSpool(mailscanGlobals::outgoing_mail(), Queue::Outgoing, most)};
}

// What only this walker meets.
void addNew(std::vector<Finding>& found, const std::vector<Finding>& more) {
    for (const Finding& finding : more) {
        if (std::ranges::find(found, finding.text, &Finding::text) == found.end()) {
            found.push_back(finding);
        }
    }
}

void checkSandbox(const ServiceUnit& unit, SpoolReport& deferred) {
    if (!unit.mayWrite(deferred.directory)) {
        deferred.findings.push_back({Weight::Warning, 0,
                                     "ReadWritePaths= of " + unit.name() +
                                         " and its drop-ins lacks it: walkers that systemd starts "
                                         "can lock and change nothing"});
    }
}

// As the walkers find them: with the rights of their users, in their units' sandboxes.
void reportSpools(const Context& context, Judge& judge, const std::string& wanted) {
    constexpr std::size_t kAll = std::numeric_limits<std::size_t>::max();
    const std::size_t most = context.json ? kAll : kMostNamed;
    const std::vector<ServiceUnit> units = unitsInUse();
    std::set<std::pair<std::string, std::string>> walkers; // user, group
    for (const ServiceUnit& unit : units) {
        walkers.emplace(wanted.empty() ? unit.user() : wanted, wanted.empty() ? unit.group() : "");
    }
    if (walkers.empty()) {
        walkers.emplace(wanted, "");
    }
    std::optional<Spools> all;
    for (const auto& [user, group] : walkers) {
        Spools spools = judgedAs(judge, user, group, most);
        if (all) {
            addNew(all->deferred.findings, spools.deferred.findings);
            addNew(all->outgoing.findings, spools.outgoing.findings);
        } else {
            all = std::move(spools);
        }
    }
    for (const ServiceUnit& unit : units) {
        checkSandbox(unit, all->deferred);
    }
    reportSpool(context, judge, "Deferred spool", all->deferred);
    reportSpool(context, judge, "Outgoing spool", all->outgoing);
}

void reportVerdict(const Context& context, Status status) {
    if (context.json) {
        writeJson(context.screen.out, {{"check", "verdict"}, {"status", static_cast<int>(status)}});
        return;
    }
    constexpr std::array kWords{
        "All is well.", "There are warnings.",
        "retryer would stop: mend this first. rulbex-table(5) has a sample and every key.",
        "Mail gets lost: stop the walkers and mend this before the next run."};
    constexpr std::array kColours{Colour::Green, Colour::Yellow, Colour::Red, Colour::Red};
    const auto at = static_cast<std::size_t>(status);
    context.screen.out << context.screen.paint(kWords.at(at), kColours.at(at)) << '\n';
}

} // namespace

int check(const Context& context, const std::string& user) {
    Judge judge(context);
    const RuleTable& table = context.table;
    title(context, "Rule table " + table.path() + " (" + table.placeReason() + "), service " +
                       printable(table.service(), kShown));
    judge.addAll("rule-table", tableFindings(table));
    if (!table.stops()) {
        reportOtherKeys(context);
        reportSettingsInForce(context);
        reportRelays(context, judge);
        judge.addAll("relay-access", checkRelayAccess(table, walkerUser(user)));
        title(context, "This host");
        judge.addAll("host", checkHost());
        reportOwnAddresses(judge);
        reportSpools(context, judge, user);
    }
    reportVerdict(context, judge.status());
    return judge.status();
}

int checkFatal(const Context& context) {
    int status = kDone;
    std::string reason;
    for (const Finding& finding : tableFindings(context.table)) {
        // A warning is no reason to keep the unit from starting.
        if (finding.weight == Weight::Stop) {
            std::string told = finding.line == 0 ? ""
                                                 : context.table.path() + " line " +
                                                       std::to_string(finding.line) + ": ";
            told += finding.text;
            std::cerr << "retryq check: " << told << '\n';
            if (status == kDone) {
                reason = std::move(told);
            }
            status = kNoTable;
        }
    }
    if (status != kDone) { // the run that is not made cannot tell, and a monitor counts lines
        Email::writeLine(Email::LogLine::Stopped, {.args = {std::to_string(status), reason}});
    }
    return status;
}

} // namespace Retryq
