#include "email/site/Setting.h"

#include "email/base/Assert.h"
#include "email/base/Decimal.h"
#include "email/site/HostList.h"
#include "email/site/mailscanGlobals.h"
#include "libevrep/Reporter.h"

namespace Email {

namespace {

using Kind = Setting::Kind;

constexpr std::int32_t kNoLimit = Setting::kNoLimit;

void setBlacklistTimeout(std::int32_t seconds) {
    HostList::BlackL.SetTimeout(seconds);
}

constexpr const char* yesNo(bool on) {
    return on ? "yes" : "no";
}

// A macro, because the rows are: each becomes one element of the table.
#define ROW(key, kind, builtIn, target, unit, least, most, choices, meaning)                       \
    Setting{key, Kind::kind, builtIn, target, unit, least, most, choices, meaning},
#define PLAIN(key, kind, builtIn, target, meaning)                                                 \
    ROW(key, kind, builtIn, target, "", 0, 0, "", meaning)
#define SETTING_NUMBER(key, member, builtIn, unit, least, most, meaning)                           \
    ROW(key, Number, #builtIn, &mailscanGlobals::member, unit, least, most, "", meaning)
#define SETTING_NUMBER_TO(key, function, builtIn, unit, least, most, meaning)                      \
    ROW(key, Number, #builtIn, &(function), unit, least, most, "", meaning)
#define SETTING_INTERVAL(key, member, builtIn, most, meaning)                                      \
    ROW(key, Interval, builtIn, &mailscanGlobals::member, "seconds", 0, most, "", meaning)
#define SETTING_SWITCH(key, member, builtIn, meaning)                                              \
    PLAIN(key, YesNo, yesNo(builtIn), &mailscanGlobals::member, meaning)
#define SETTING_SWITCH_TO(key, number, builtIn, meaning)                                           \
    PLAIN(key, YesNo, yesNo(builtIn), &(number), meaning)
#define SETTING_CHOICE(key, member, builtIn, choices, meaning)                                     \
    ROW(key, Choice, builtIn, &mailscanGlobals::member, "", 0, 0, choices, meaning)
#define SETTING_TEXT(key, member, builtIn, meaning)                                                \
    PLAIN(key, Text, builtIn, &mailscanGlobals::member, meaning)
#define SETTING_DIRECTORY(key, member, builtIn, meaning)                                           \
    PLAIN(key, Directory, builtIn, &mailscanGlobals::member, meaning)
#define SETTING_PATH(key, member, builtIn, meaning)                                                \
    PLAIN(key, File, builtIn, &mailscanGlobals::member, meaning)
#define SETTING_WORDS(key, member, meaning) PLAIN(key, Words, "", &mailscanGlobals::member, meaning)
#define SETTING_CHOICE_LINES(key, choices, meaning)                                                \
    ROW(key, Lines, "", std::monostate(), "", 0, 0, choices, meaning)
#define SETTING_LINES(key, meaning) PLAIN(key, Lines, "", std::monostate(), meaning)

constexpr Setting kSettings[] = {
#include "email/site/Settings.inc"
};

#undef ROW
#undef PLAIN

const char* word(const Setting& setting, cfgrec* cfg) {
    const char* value = nullptr;
    charParam(value, setting.key, cfg, setting.builtIn);
    return value;
}

std::int32_t choice(const Setting& setting, cfgrec* cfg) {
    const std::int32_t place = choiceOf(setting.choices, word(setting, cfg));
    if (place < 0) {
        // A guess could switch off what the administrator meant to switch on.
        assert_failure("choiceOf(setting.choices, word) >= 0", "lib/email/mailscanGlobals",
                       __LINE__);
    }
    return place;
}

void store(const Setting& setting, cfgrec* cfg, bool* target) {
    *target = boolParam(setting.key, cfg, std::string_view(setting.builtIn) == "yes");
}

std::int32_t number(const Setting& setting, cfgrec* cfg) {
    switch (setting.kind) {
    case Kind::YesNo: {
        bool on = false;
        store(setting, cfg, &on);
        return on ? 1 : 0;
    }
    case Kind::Choice:
        return choice(setting, cfg);
    case Kind::Interval:
        return decimalOf(word(setting, cfg)); // "off" has no digits
    default:
        return static_cast<std::int32_t>(intParam(setting.key, cfg, decimalOf(setting.builtIn)));
    }
}

void store(const Setting& setting, cfgrec* cfg, std::int32_t* target) {
    *target = number(setting, cfg);
}

void store(const Setting& setting, cfgrec* cfg, void (*target)(std::int32_t)) {
    target(number(setting, cfg));
}

void store(const Setting& setting, cfgrec* cfg, const char** target) {
    *target = word(setting, cfg);
}

void store(const Setting& setting, cfgrec* cfg, FileName* target) {
    *target = fileParam(setting.key, cfg, setting.builtIn);
}

void store(const Setting& setting, cfgrec* cfg, const char*** target) {
    charsParam(*target, setting.key, cfg);
}

void store(const Setting& /*setting*/, cfgrec* /*cfg*/, std::monostate /*target*/) {}

} // namespace

std::span<const Setting> settings() noexcept {
    return kSettings;
}

void Setting::load(cfgrec* cfg) const {
    std::visit([&](auto to) { store(*this, cfg, to); }, target);
}

} // namespace Email
