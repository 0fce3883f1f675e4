#include "support/mail.h"

namespace {

using G = mailscanGlobals;

TEST(Settings, SwitchWordsAndNumbers) {
    for (const char* word : {"on", "On", "y", "YES", "t", "True", "1", "*"}) {
        EXPECT_TRUE(boolParam("k", table(std::string("k ") + word), false)) << word;
    }
    for (const char* word : {"off", "2", "''", "no", "yess", "**", "11", " "}) {
        EXPECT_FALSE(boolParam("k", table(std::string("k ") + word), true)) << word;
    }
    EXPECT_TRUE(boolParam("k", table("other off"), true));
    // clang-format off
    const std::pair<const char*, std::int32_t> numbers[] = {
        {"30", 30}, {"-5", -5}, {"+7", 7}, {"' 12abc'", 12}, {"abc", 0}, {"''", 0}, {"-", 0},
        {"-1e9", -1}, {"9999999999999999999", 2147483647}, {"-99999999999", -2147483647 - 1}};
    // clang-format on
    for (const auto& [word, value] : numbers) {
        EXPECT_EQ(intParam("k", table(std::string("k ") + word), 99), value) << word;
    }
}

// clang-format off
const std::pair<const char*, std::int32_t*> kNumbers[] = {
    {"smtp-data-timeout", &G::DATA_initiation_interval},
    {"smtp-send-timeout", &G::DATA_send_interval}, {"smtp-final-timeout", &G::DATA_final_interval},
    {"smtp-rcpt-timeout", &G::RCPT_command_interval}, {"bind-port", &G::mailReadPort},
    {"smtp-mail-timeout", &G::MAIL_command_interval}, {"send-port", &G::mailSendPort},
    {"smtp-connect-timeout", &G::initial_220_interval}, {"max-addr-to-try", &G::max_addr_to_try},
    {"smtp-max-deferral", &G::retry_max_interval}, {"smtp-min-deferral", &G::retry_min_interval},
    {"max-addr-per-host", &G::max_addr_per_host},
    {"max-returned-line-count", &G::max_returned_line_count},
    {"smtp-direct-size-limit", &G::directSendSizeLimit},
    {"smtp-direct-recipient-limit", &G::directSendRecipientLimit}};
// clang-format on

// All settings in one text.
std::string settings() {
    std::ostringstream text;
    for (const auto& [key, member] : kNumbers) {
        text << *member << ' ';
    }
    text << G::mailLogEnable << G::dnsEnable << G::TransportLogging << ReportingMode << ' '
         << G::tolvaneAdmin << ' ' << G::deferred_mail_path() << ' ' << G::outgoing_mail() << ' '
         << G::defaultDomain << ' ' << G::CONFIGURATION_mailscan_version << ' '
         << G::allow_nonrfc_domain;
    const char* const* domain = G::direct_send_internal_domain;
    for (; domain != nullptr && *domain != nullptr; ++domain) {
        text << ' ' << *domain;
    }
    return text.str();
}

TEST(Settings, EveryKeyReachesItsMemberAndEveryBuiltInValueComesBack) {
    const std::string builtIn = settings();
    std::string lines = "mail-log  \nuse-dns no\ntransport-log on\nreporting-mode y\n"
                        "badadmin adm@x\ndirectory /o\ndeferred-directory /d\n"
                        "default-domain dd\nallow-nonrfc-domain yes\ndirect-send-domains a b\n";
    std::string numbers;
    for (int i = 7000; const auto& [key, member] : kNumbers) {
        lines += std::string(key) + ' ' + std::to_string(i) + '\n';
        numbers += std::to_string(i++) + ' ';
    }
    G::initialise(table(lines));
    EXPECT_EQ(settings(), numbers + "0011 adm@x /d /o dd prototype yes a b");
    G::initialise(nullptr);
    EXPECT_EQ(settings(), builtIn);
    EXPECT_EQ(G::direct_send_internal_domain, nullptr);
}

TEST(SettingsDeath, WrongWordCountsAndFailedChecksEndTheRunWithOneEvent) {
    for (const char* line : {"smtp-min-deferral 1 2", "badadmin 1 2", "directory 1 2",
                             "mail-log 1 2", "default-domain  "}) {
        EXPECT_FAILED_CHECK(G::initialise(table(line)),
                            " 1=lib/email/mailscanGlobals 8=cf->argc == 1 15=");
    }
    EXPECT_FAILED_CHECK(G::initialise(table("direct-send-domains  ")), "8=cf->argc > 0 ");
}

} // namespace
