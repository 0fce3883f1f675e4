#include "retryq/RelayAccessCheck.h"

#include "email/site/RelayAccess.h"
#include "email/site/mailscanGlobals.h"
#include "email/smtp/TlsModule.h"
#include "fwall/hexesc.h"
#include "retryq/ActingAs.h"

#include <algorithm>
#include <string_view>

namespace Retryq {

namespace {

using Email::RelayAccess;
using Weight = Finding::Weight;

constexpr std::size_t kShown = 256;

bool isRelay(const RelayAccess& access, const RelayAccess::Line& line, const RuleTable& table) {
    for (const char* const key : {"domain-relay", "fallback-relay"}) {
        for (cfgrec* record = cfg_get(key, table.records()); record != nullptr;
             record = cfg_next(key, record)) {
            for (int i = 1; i < record->argc; ++i) {
                if (access.find(record->argv[i]) == &line) {
                    return true;
                }
            }
        }
    }
    return false;
}

std::int32_t lineOfKey(const RuleTable& table) {
    const auto all = settings();
    const auto key = std::ranges::find(all, std::string_view("relay-access"), &Setting::key);
    return table.line(*key);
}

} // namespace

std::vector<Finding> checkRelayAccess(const RuleTable& table, const std::string& user) {
    std::vector<Finding> found;
    RelayAccess access;
    {
        // The walkers read it with the rights of their user.
        const ActingAs walker(user);
        access.load(mailscanGlobals::relayAccessFile);
    }
    if (!access.wanted()) {
        return found;
    }
    const auto warn = [&](const std::string& text) {
        found.push_back({Weight::Warning, lineOfKey(table), "relay-access " + text});
    };
    if (!access.trouble().empty()) {
        warn(access.trouble() + ": no relay is used, their mail waits");
        return found;
    }
    std::string trouble;
    if (Email::tlsContext(mailscanGlobals::tlsAuthorities, mailscanGlobals::tlsCertificate,
                          trouble) == nullptr) {
        warn("needs TLS, the mail waits: " + trouble);
    }
    for (const RelayAccess::Line& line : access.lines()) {
        if (!isRelay(access, line, table)) {
            warn("has a line for " + printable(line.host, kShown) + ", which is no relay here");
        }
    }
    if (access.lines().empty()) {
        warn("names a file without a line");
    }
    return found;
}

} // namespace Retryq
