// The rule table as the administrator sees it.
#include "email/site/mailscanGlobals.h"
#include "retryq/Settings.h"
#include "support/mail.h"

#include <algorithm>
#include <array>
#include <iterator>

using namespace Retryq;

namespace {

std::string findings(const RuleTable& table) {
    std::vector<Finding> all = table.faults();
    std::ranges::copy(table.advice(), std::back_inserter(all));
    std::string out;
    for (const Finding& f : all) {
        if (f.text.starts_with("badadmin is not set")) {
            continue; // in no table here
        }
        constexpr std::array kWeights{"warn ", "stop ", "loses "};
        out += kWeights.at(static_cast<std::size_t>(f.weight));
        out += std::to_string(f.line) + " " + f.text + "\n";
    }
    return out;
}

TEST(Settings, NearestKey) {
    // clang-format off
    const std::pair<const char*, const char*> kCases[]{
        {"smtp-min-deferal", "smtp-min-deferral"}, {"smtp-mni-deferral", "smtp-min-deferral"},
        {"domain-relays", "domain-relay"}, {"usedns", "use-dns"}, {"deny-hosts", nullptr},
        {"logging", nullptr}};
    // clang-format on
    for (const auto& [word, expected] : kCases) {
        const Setting* const nearest = nearestSetting(word);
        EXPECT_STREQ(nearest == nullptr ? nullptr : nearest->key, expected) << word;
    }
}

TEST_F(Spool, FindsWhatIsWrongInTheRuleTable) {
    // Lines behind the first one, and what is said of them.
    // clang-format off
    const std::pair<const char*, const char*> kCases[]{
        {"vorn: use-dns yes\n", ""}, {"vorn: hosts 1.2.3.4\n", ""}, {"other: use-dns\n", ""},
        {"vorn: use-dns\n", "warn 2 rejected: missing parameter"},
        {"no colon\n", "warn 2 rejected: malformed"},
        {"vorn: use-dns no", "warn 2 rejected: too long"},
        {"vorn: use-dns nope\n", "warn 2 use-dns: \"nope\" reads as no"},
        {"vorn: send-port 12x\n", "warn 2 send-port: \"12x\" is no whole number and reads as 12"},
        {"vorn: send-port 12 13\n", "stop 2 send-port takes exactly one value, here are 2"},
        {"vorn: mail-log yes no\n", "stop 2 mail-log takes exactly one value"},
        {"vorn: direct-send-domains  \n", "stop 2 direct-send-domains takes at least one value"},
        {"vorn: domain-relay *\n", "stop 2 domain-relay takes a pattern and at least one server"},
        {"vorn: use-dns yes\nvorn: use-dns no\n", "warn 3 use-dns does not count: it stands on line"},
        {"vorn: deny-use-dns yes\n", "warn 2 use-dns: its deny-"},
        {"vorn: send-prot 5\n", "warn 2 unknown key send-prot: did you mean send-port?"},
        {"vorn: max-addr-to-try -1\n",
         "warn 2 max-addr-to-try of -1: sensible is 1 to 100\nstop 2 max-addr-to-try below 0"},
        {"vorn: smtp-max-deferral 2000\n", "loses 2 smtp-max-deferral of 2000 is not above"},
        {"vorn: smtp-max-deferral 4d\n", "warn 2 smtp-max-deferral: \"4d\" is no whole number and "
         "reads as 4\nloses 2 smtp-max-deferral of 4 is"},
        {"vorn: smtp-data-timeout 0\n", "warn 2 smtp-data-timeout of 0: sensible is 1 to 86400"},
        {"vorn: send-port 65536\n", "warn 2 send-port of 65536"},
        {"vorn: smtp-min-deferral -1\n", "warn 2 smtp-min-deferral of -1: sensible is 0 or more"},
        {"vorn: directory /tmp\n", "warn 2 directory: \"/tmp\" does not end in a slash"},
        {"vorn: smtp-direct-size-limit 1\nvorn: smtp-direct-recipient-limit 0\n",
         "loses 3 smtp-direct-size-limit with"}};
    // clang-format on
    EXPECT_TRUE(RuleTable("vorn").stops()); // no file
    for (const auto& [lines, said] : kCases) {
        installTable(lines);
        const RuleTable table("vorn");
        const std::string found = findings(table);
        EXPECT_TRUE(found.starts_with(said) && found.empty() == (*said == '\0')) << lines << found;
        EXPECT_EQ(table.stops(), found.find(" takes ") != std::string::npos) << found;
    }
    EXPECT_TRUE(RuleTable("vorn2").stops()); // no line
}

TEST_F(Spool, ShowsTheValuesInForce) {
    installTable("vorn: smtp-min-deferral 900s\nvorn: use-dns  \nvorn: badadmin 'a b'\n");
    const RuleTable table("vorn");
    table.load();
    std::string values;
    for (const char* key : {"smtp-min-deferral", "use-dns", "badadmin", "send-port"}) {
        values += table.value(*nearestSetting(key)) + ';';
    }
    EXPECT_EQ(values, "900;no;a b;25;");
    EXPECT_EQ(mailscanGlobals::retry_min_interval, 900);
    EXPECT_FALSE(mailscanGlobals::dnsEnable);
}

} // namespace
