// Every setting of the mail side, read once from the rule table and read directly everywhere.
#pragma once

#include "email/file/FileName.h"

#include <cstdint>

struct cfgrec;

class mailscanGlobals {
public:
    // Reads every key in the order of email/site/Settings.inc; an absent key leaves the built-in
    // value. A key with a wrong number of words ends the run through assert_failure(). Text
    // settings point into the records of `cfg`, which must outlive the run; null stands for a table
    // without lines.
    static void initialise(cfgrec* cfg);

    // The settings, each named and explained by its row; times are seconds. A word list is
    // null-ended, or null; a directory name ends in "/".
#define SETTING_NUMBER(key, member, builtIn, unit, least, most, meaning) static std::int32_t member;
#define SETTING_INTERVAL(key, member, builtIn, most, meaning) static std::int32_t member;
#define SETTING_SWITCH(key, member, builtIn, meaning) static bool member;
#define SETTING_CHOICE(key, member, builtIn, choices, meaning) static std::int32_t member;
#define SETTING_TEXT(key, member, builtIn, meaning) static const char* member;
#define SETTING_DIRECTORY(key, member, builtIn, meaning) static FileName member;
#define SETTING_PATH(key, member, builtIn, meaning) static const char* member;
#define SETTING_WORDS(key, member, meaning) static const char** member;
#include "email/site/Settings.inc"

    static const char* CONFIGURATION_mailscan_version; // never read from the rule table
};

// The readers behind initialise(). A null list means that the key is absent.
long intParam(const char* key, cfgrec* cfg, long dflt);
bool boolParam(const char* key, cfgrec* cfg, bool dflt);
void charParam(const char*& value, const char* key, cfgrec* cfg, const char* dflt);
// Releases the array (not the texts) that `list` holds and builds a new one, or null.
void charsParam(const char**& list, const char* key, cfgrec* cfg);
FileName fileParam(const char* key, cfgrec* cfg, const char* dflt);
