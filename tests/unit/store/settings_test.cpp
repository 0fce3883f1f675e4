#include "email/Assert.h"
#include "email/HostList.h"
#include "email/mailscanGlobals.h"
#include "email/resource.h"
#include "libevrep/Reporter.h"
#include "store_support.h"

#include <sstream>

namespace {

using G = mailscanGlobals;

TEST(Settings, SwitchWords) {
    for (const char* word : {"on", "On", "y", "YES", "t", "True", "1", "*"}) {
        EXPECT_TRUE(boolParam("k", table(std::string("k ") + word), false)) << word;
    }
    for (const char* word : {"off", "2", "''", "no", "yess", "**", "11", " "}) {
        EXPECT_FALSE(boolParam("k", table(std::string("k ") + word), true)) << word;
    }
    EXPECT_TRUE(boolParam("k", table("other off"), true));
}

TEST(Settings, Numbers) {
    const std::pair<const char*, long> cases[] = {{"30", 30},
                                                  {"-5", -5},
                                                  {"+7", 7},
                                                  {"' 12abc'", 12},
                                                  {"abc", 0},
                                                  {"''", 0},
                                                  {"-1e9", -1},
                                                  {"-", 0},
                                                  {"9999999999999999999", 2147483647},
                                                  {"-99999999999", -2147483648L}};
    for (const auto& [word, value] : cases) {
        EXPECT_EQ(intParam("k", table(std::string("k ") + word), 99), value) << word;
    }
}

const std::pair<const char*, std::int32_t*> kNumbers[] = {
    {"smtp-data-timeout", &G::DATA_initiation_interval},
    {"smtp-send-timeout", &G::DATA_send_interval},
    {"smtp-final-timeout", &G::DATA_final_interval},
    {"smtp-rcpt-timeout", &G::RCPT_command_interval},
    {"smtp-mail-timeout", &G::MAIL_command_interval},
    {"smtp-connect-timeout", &G::initial_220_interval},
    {"smtp-max-deferral", &G::retry_max_interval},
    {"smtp-min-deferral", &G::retry_min_interval},
    {"max-addr-per-host", &G::max_addr_per_host},
    {"max-addr-to-try", &G::max_addr_to_try},
    {"max-returned-line-count", &G::max_returned_line_count},
    {"smtp-direct-size-limit", &G::directSendSizeLimit},
    {"smtp-direct-recipient-limit", &G::directSendRecipientLimit},
    {"send-port", &G::mailSendPort},
    {"bind-port", &G::mailReadPort}};

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

TEST(SettingsDeath, WrongWordCountsEndTheRun) {
    for (const char* line : {"smtp-min-deferral 1 2", "badadmin 1 2", "directory 1 2",
                             "mail-log 1 2", "default-domain  "}) {
        EXPECT_FAILED_CHECK(G::initialise(table(line)),
                            " 1=lib/email/mailscanGlobals 8=cf->argc == 1 15=");
    }
    EXPECT_FAILED_CHECK(G::initialise(table("direct-send-domains  ")), "8=cf->argc > 0 ");
}

TEST(AssertDeath, ReportsOneEventAndExitsWithOne) {
    EXPECT_FAILED_CHECK(assert_failure("a > b", "lib/email/x", 171),
                        "13500 version=0 audience=2 severity=32 reason=1 1=lib/email/x 8=a > b "
                        "15=171 .\n");
    EXPECT_FAILED_CHECK(assert_failure(nullptr, nullptr, 0), "reason=1 15=0 .\n");
}

TEST(Texts, CodesAndResources) {
    EXPECT_STREQ(smtpString(IDS_RTS452), "Requested action not taken: insufficent system storage. "
                                         "[SMTP Error Code 452]");
    EXPECT_STREQ(smtpString(TIMEOUTEXPIRED), "Timer expired");
    const char* const unknown = smtpString(ACTION_OKA);
    EXPECT_STREQ(unknown, "Unknown SMTP code 250");
    EXPECT_STREQ(smtpString(IDS_NO_REASON), "Unknown SMTP code -1");
    EXPECT_STREQ(unknown, "Unknown SMTP code -1"); // one buffer
    EXPECT_STREQ(resourceString(static_cast<resourceIds>(208)), "Unknown resource string 208");
    EXPECT_STREQ(resourceString(IDS_MAILSENDER_RETURNEDMAIL),
                 "Returned Mail - Error During Delivery");
}

} // namespace
