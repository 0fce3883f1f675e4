#include "email/site/mailscanGlobals.h"

#include "email/base/Assert.h"
#include "email/base/Decimal.h"
#include "email/site/HostList.h"
#include "fwall/config.h"
#include "libevrep/Reporter.h"

#include <algorithm>
#include <array>
#include <memory>
#include <string_view>
#include <strings.h>
#include <vector>

std::int32_t mailscanGlobals::directSendSizeLimit = 0;
std::int32_t mailscanGlobals::directSendRecipientLimit = 1;
std::int32_t mailscanGlobals::DATA_initiation_interval = 60;
std::int32_t mailscanGlobals::DATA_send_interval = 30;
std::int32_t mailscanGlobals::DATA_final_interval = 200;
std::int32_t mailscanGlobals::RCPT_command_interval = 60;
std::int32_t mailscanGlobals::MAIL_command_interval = 60;
std::int32_t mailscanGlobals::initial_220_interval = 60;
std::int32_t mailscanGlobals::retry_max_interval = 400000;
std::int32_t mailscanGlobals::retry_min_interval = 2000;
std::int32_t mailscanGlobals::max_addr_per_host = 2;
std::int32_t mailscanGlobals::max_addr_to_try = 10;
std::int32_t mailscanGlobals::max_returned_line_count = 12000;
bool mailscanGlobals::mailLogEnable = true;
bool mailscanGlobals::dnsEnable = true;
bool mailscanGlobals::TransportLogging = false;
std::int32_t mailscanGlobals::mailSendPort = 25;
std::int32_t mailscanGlobals::mailReadPort = 25;
const char** mailscanGlobals::direct_send_internal_domain = nullptr;
const char* mailscanGlobals::tolvaneAdmin = "";
FileName mailscanGlobals::deferred_mail_path("/var/spool/deferred/");
FileName mailscanGlobals::outgoing_mail("/var/spool/vorn/");
const char* mailscanGlobals::defaultDomain = "";
const char* mailscanGlobals::CONFIGURATION_mailscan_version = "prototype";
const char* mailscanGlobals::allow_nonrfc_domain = "no";

namespace {

constexpr const char* kUnit = "lib/email/mailscanGlobals";

cfgrec* lookUp(const char* key, cfgrec* cfg) {
    // Asked with a null list, cfg_get() would go on from where the last search stopped.
    return cfg == nullptr ? nullptr : cfg_get(key, cfg);
}

const char* onlyWord(const cfgrec& cf) {
    if (cf.argc != 1) {
        assert_failure("cf->argc == 1", kUnit, __LINE__);
    }
    return cf.argv[0];
}

const char* wordOr(const char* key, cfgrec* cfg, const char* dflt) {
    const cfgrec* const cf = lookUp(key, cfg);
    return cf == nullptr ? dflt : onlyWord(*cf);
}

bool isTrue(const char* word) noexcept {
    constexpr std::array kYes{"on", "y", "yes", "t", "true", "1", "*"};
    return std::ranges::any_of(kYes,
                               [word](const char* yes) { return ::strcasecmp(word, yes) == 0; });
}

using TextArray = std::unique_ptr<const char*[]>;

// Owns the arrays that charsParam() hands out.
std::vector<TextArray>& textArrays() {
    static std::vector<TextArray> arrays;
    return arrays;
}

std::int32_t number(const char* key, cfgrec* cfg, long dflt) {
    return static_cast<std::int32_t>(intParam(key, cfg, dflt));
}

} // namespace

long intParam(const char* key, cfgrec* cfg, long dflt) {
    const cfgrec* const cf = lookUp(key, cfg);
    if (cf == nullptr) {
        return dflt;
    }
    std::string_view text = onlyWord(*cf);
    return Email::takeDecimal(text).value_or(0);
}

bool boolParam(const char* key, cfgrec* cfg, bool dflt) {
    const cfgrec* const cf = lookUp(key, cfg);
    if (cf == nullptr) {
        return dflt;
    }
    // A switch without a word is off; only the other keys insist on one word.
    return cf->argc != 0 && isTrue(onlyWord(*cf));
}

void charParam(const char*& value, const char* key, cfgrec* cfg, const char* dflt) {
    value = wordOr(key, cfg, dflt);
}

void charsParam(const char**& list, const char* key, cfgrec* cfg) {
    std::erase_if(textArrays(), [list](const TextArray& array) { return array.get() == list; });
    list = nullptr;
    const cfgrec* const cf = lookUp(key, cfg);
    if (cf == nullptr) {
        return;
    }
    if (cf->argc <= 0) {
        assert_failure("cf->argc > 0", kUnit, __LINE__);
    }
    const auto words = static_cast<std::size_t>(cf->argc);
    auto array = std::make_unique<const char*[]>(words + 1);
    std::copy_n(cf->argv, words, array.get());
    list = textArrays().emplace_back(std::move(array)).get();
}

FileName fileParam(const char* key, cfgrec* cfg, const char* dflt) {
    return FileName(wordOr(key, cfg, dflt));
}

void mailscanGlobals::initialise(cfgrec* cfg) {
    DATA_initiation_interval = number("smtp-data-timeout", cfg, 60);
    DATA_send_interval = number("smtp-send-timeout", cfg, 30);
    DATA_final_interval = number("smtp-final-timeout", cfg, 200);
    RCPT_command_interval = number("smtp-rcpt-timeout", cfg, 60);
    MAIL_command_interval = number("smtp-mail-timeout", cfg, 60);
    initial_220_interval = number("smtp-connect-timeout", cfg, 60);
    retry_max_interval = number("smtp-max-deferral", cfg, 400000);
    retry_min_interval = number("smtp-min-deferral", cfg, 2000);
    max_addr_per_host = number("max-addr-per-host", cfg, 2);
    max_addr_to_try = number("max-addr-to-try", cfg, 10);
    max_returned_line_count = number("max-returned-line-count", cfg, 12000);
    directSendSizeLimit = number("smtp-direct-size-limit", cfg, 0);
    directSendRecipientLimit = number("smtp-direct-recipient-limit", cfg, 1);
    mailLogEnable = boolParam("mail-log", cfg, true);
    dnsEnable = boolParam("use-dns", cfg, true);
    TransportLogging = boolParam("transport-log", cfg, false);
    mailSendPort = number("send-port", cfg, 25);
    mailReadPort = number("bind-port", cfg, 25);
    charParam(tolvaneAdmin, "badadmin", cfg, "");
    deferred_mail_path = fileParam("deferred-directory", cfg, "/var/spool/deferred/");
    outgoing_mail = fileParam("directory", cfg, "/var/spool/vorn/");
    charParam(defaultDomain, "default-domain", cfg, "");
    charsParam(direct_send_internal_domain, "direct-send-domains", cfg);
    charParam(allow_nonrfc_domain, "allow-nonrfc-domain", cfg, "no");
    HostList::BlackL.SetTimeout(number("smtp-blacklist-timeout", cfg, DEFAULT_BLACKLIST_TIMEOUT));
    ReportingMode = boolParam("reporting-mode", cfg, false) ? 1 : 0;
}
