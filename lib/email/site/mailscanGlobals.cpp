#include "email/site/mailscanGlobals.h"

#include "email/base/Assert.h"
#include "email/base/Decimal.h"
#include "email/site/Setting.h"
#include "email/site/TlsPolicy.h"
#include "fwall/config.h"

#include <algorithm>
#include <array>
#include <memory>
#include <strings.h>
#include <vector>

// Each member with its built-in value, from its row.
#define SETTING_NUMBER(key, member, builtIn, unit, least, most, meaning)                           \
    std::int32_t mailscanGlobals::member = builtIn;
#define SETTING_INTERVAL(key, member, builtIn, most, meaning)                                      \
    std::int32_t mailscanGlobals::member = Email::decimalOf(builtIn);
#define SETTING_SWITCH(key, member, builtIn, meaning) bool mailscanGlobals::member = builtIn;
#define SETTING_CHOICE(key, member, builtIn, choices, meaning)                                     \
    std::int32_t mailscanGlobals::member = Email::choiceOf(choices, builtIn);
#define SETTING_TEXT(key, member, builtIn, meaning) const char* mailscanGlobals::member = builtIn;
#define SETTING_DIRECTORY(key, member, builtIn, meaning) FileName mailscanGlobals::member(builtIn);
#define SETTING_PATH(key, member, builtIn, meaning) const char* mailscanGlobals::member = builtIn;
#define SETTING_WORDS(key, member, meaning) const char** mailscanGlobals::member = nullptr;
#include "email/site/Settings.inc"

const char* mailscanGlobals::CONFIGURATION_mailscan_version = "prototype";

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

} // namespace

long intParam(const char* key, cfgrec* cfg, long dflt) {
    const cfgrec* const cf = lookUp(key, cfg);
    if (cf == nullptr) {
        return dflt;
    }
    return Email::decimalOf(onlyWord(*cf));
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
    // What an earlier reading handed out: the settings may be read again.
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
    for (const Email::Setting& setting : Email::settings()) {
        setting.load(cfg);
    }
    Email::tlsPolicy().load(static_cast<Email::TlsLevel>(smtpTls), cfg);
}
