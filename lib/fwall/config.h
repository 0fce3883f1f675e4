// The rule table: one text file that several programs of the gateway share. A program reads the
// lines meant for its service once, at start, as a list of records in file order, and looks its
// settings up by keyword. Line grammar: fwall/ruletable.h; arguments: fwall/enargv.h.
//
// Process-wide state, one thread only: pfile, homedir, savp.
#pragma once

#include "fwall/ruletable.h"

#include <cstdint>

// One selected line. The list owns every record with all it points to (but nullav).
struct cfgrec {
    std::int32_t flags = 0; // one CfgFlag, or 0
    std::int32_t ln = 0;    // line number in the file, from 1
    char* op = nullptr;     // keyword without its prefix
    std::int32_t argc = 0;
    char** argv = nullptr; // argc texts and a null entry; see nullav
    cfgrec* next = nullptr;
};

// The argument vector of every record that was read with no arguments; never released.
extern char* nullav[1];

// Full path of the rule table; null until the first reading.
extern char* pfile;
// The install location that getlocation() found last, empty when none is known.
extern char homedir[256];
// Where cfg_get() continues: the record after the last one it found.
extern cfgrec* savp;

// True for the all-ones pointer, the mark of a failed cfg_read() or cfg_copy().
inline bool cfg_failed(const cfgrec* list) noexcept {
    return reinterpret_cast<std::uintptr_t>(list) == UINTPTR_MAX;
}

// Told of everything that goes wrong while a rule table is read. A rejected line never stops the
// reading; the other two end it.
class CfgFaults {
public:
    virtual ~CfgFaults() = default;
    // `error` is the errno of the failed open, or of the read that failed.
    virtual void cannotOpen(const char* service, const char* path, int error) = 0;
    virtual void rejected(const char* path, std::int32_t line, CfgFault fault) = 0;
    virtual void outOfMemory() = 0;
};

// Reads the lines for `service` from pfile, which is set to the usual place, the install location
// and "/usr/local/etc/rulbex-table", when it is null. Returns the list (the caller frees it with
// cfg_free()), null when no line is selected, and the all-ones pointer when the file cannot be
// opened or read or memory runs out.
//
// Troubles are logged at priority notice: by SendLog() with their message code, or straight to
// syslog() where the logger itself is asking.
cfgrec* cfg_read(const char* service);
cfgrec* cfg_read_no_SendLog(const char* service);
// The same reading, told to `faults` and logged nowhere: for a program that checks a table.
cfgrec* cfg_read_observed(const char* service, CfgFaults& faults);

// Forgets pfile and, given a path, sets it to getlocation(path). Returns 0.
int cfg_setpfile(const char* path);

// The install location followed directly by `path`, no separator added; the caller releases it with
// std::free(). Null for a null path or when memory runs out. The location is found afresh each
// time: the environment variable TAVORIX (even when empty), else the "install_location=" line of
// "/var/QELENV/.profile.vars", else nothing; it is cut to 255 bytes.
char* getlocation(const char* path);

// The first record of `list` whose keyword equals `keyword` exactly, or null. With a null list the
// search continues behind the record that the last call found, and ends at once after a miss.
cfgrec* cfg_get(const char* keyword, cfgrec* list) noexcept;

// The next such record after `record` (that one excluded), or null, also for a null record.
cfgrec* cfg_next(const char* keyword, cfgrec* record) noexcept;

// Releases a list; null and the all-ones pointer are ignored. A cursor into it is forgotten.
void cfg_free(cfgrec* list) noexcept;

// A deep copy in the same order; null for null. Records without arguments get a null argv here.
// The all-ones pointer when memory runs out, which is logged.
cfgrec* cfg_copy(const cfgrec* list);
