#include "email/site/Setting.h"
#include "support/mail.h"

namespace {

using G = mailscanGlobals;
using Email::Setting;
using Kind = Setting::Kind;

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

template<class... Case>
struct Overloaded : Case... {
    using Case::operator()...;
};
template<class... Case>
Overloaded(Case...) -> Overloaded<Case...>;

std::string choiceAt(const Setting& setting, int place) {
    std::string_view rest = setting.choices;
    for (; place > 0; --place) {
        rest.remove_prefix(rest.find('|') + 1);
    }
    return std::string(rest.substr(0, rest.find('|')));
}

std::string lastChoice(const Setting& setting) {
    return std::string(setting.choices).substr(std::string_view(setting.choices).rfind('|') + 1);
}

// What a setting holds, in words that the rule table could have; a "-" for what is kept elsewhere.
std::string held(const Setting& setting) {
    const auto yesNo = [](bool on) { return std::string(on ? "yes" : "no"); };
    return std::visit(Overloaded{[&](std::int32_t* to) {
                                     return setting.kind == Kind::YesNo    ? yesNo(*to == 1)
                                            : setting.kind == Kind::Choice ? choiceAt(setting, *to)
                                            : setting.kind == Kind::Interval && *to == 0
                                                ? "off"
                                                : std::to_string(*to);
                                 },
                                 [&](bool* to) { return yesNo(*to); },
                                 [](const char** to) { return std::string(*to); },
                                 [](FileName* to) { return std::string((*to)()); },
                                 [](const char*** to) {
                                     return *to == nullptr ? std::string()
                                                           : std::string(**to) + " " + (*to)[1];
                                 },
                                 [](auto) { return std::string("-"); }},
                      setting.target);
}

TEST(Settings, EveryKeyReachesItsMemberAndEveryBuiltInValueComesBack) {
    std::string lines;
    int next = 7000;
    std::vector<std::string> values;
    for (const Setting& s : Email::settings()) {
        const bool counted = s.kind == Kind::Number || s.kind == Kind::Interval;
        values.push_back(counted                 ? std::to_string(next++)
                         : s.kind == Kind::YesNo ? (*s.builtIn == 'y' ? "no" : "yes")
                         : *s.choices != '\0'    ? lastChoice(s)
                                                 : "a b");
        lines += s.key + (s.kind == Kind::Words ? " a b\n"
                          : s.repeats()         ? " a " + values.back() + "\n"
                                                : " '" + values.back() + "'\n");
    }
    G::initialise(table(lines));
    for (std::size_t i = 0; const Setting& s : Email::settings()) {
        EXPECT_EQ(held(s), held(s) == "-" ? "-" : values.at(i)) << s.key;
        ++i;
    }
    G::initialise(nullptr);
    for (const Setting& s : Email::settings()) {
        EXPECT_EQ(held(s), held(s) == "-" ? "-" : s.builtIn) << s.key;
    }
    EXPECT_EQ(G::direct_send_internal_domain, nullptr);
}

// The kinds that no key above has.
TEST(SettingsDeath, IntervalsChoicesAndPaths) {
    std::int32_t number = 99;
    const char* path = nullptr;
    const Setting interval{"k", Kind::Interval, "off", &number, "seconds", 0, 9, "", ""};
    const Setting choice{"k", Kind::Choice, "may", &number, "", 0, 0, "none|may|verify", ""};
    const Setting file{"k", Kind::File, "/built/in", &path, "", 0, 0, "", ""};
    // clang-format off
    const std::tuple<const Setting*, const char*, std::int32_t> cases[] = {
        {&interval, "k off", 0}, {&interval, "k 30", 30}, {&interval, "other x", 0},
        {&choice, "k none", 0}, {&choice, "k VERIFY", 2}, {&choice, "other x", 1}};
    // clang-format on
    for (const auto& [setting, line, value] : cases) {
        setting->load(table(line));
        EXPECT_EQ(number, value) << line;
    }
    file.load(table("k /p"));
    EXPECT_STREQ(path, "/p");
    for (const char* line : {"k mayb", "k ''", "k ma"}) {
        EXPECT_FAILED_CHECK(choice.load(table(line)), "1=lib/email/mailscanGlobals 8=choiceOf");
    }
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
