#include "fwall/config.h"

#include "fwall/linefile.h"
#include "fwall/log.h"

#include <array>
#include <bit>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include <syslog.h>

char* nullav[1] = {nullptr};
char* pfile = nullptr;
char homedir[256] = "";
cfgrec* savp = nullptr;

namespace {

constexpr const char* kDefaultTable = "/usr/local/etc/rulbex-table";
constexpr const char* kProfilePath = "/var/QELENV/.profile.vars";
constexpr std::string_view kProfileKey = "install_location";

enum MessageCode : std::int32_t {
    TABLE_NOT_OPENED = 11500,
    LINE_REJECTED = 11502,
    NO_MEMORY = 13507
};

struct ListDeleter {
    void operator()(cfgrec* list) const noexcept { cfg_free(list); }
};
using OwnedList = std::unique_ptr<cfgrec, ListDeleter>;

cfgrec* failedList() noexcept {
    return std::bit_cast<cfgrec*>(UINTPTR_MAX);
}

char* duplicate(std::string_view text) {
    auto copy = std::make_unique<char[]>(text.size() + 1);
    text.copy(copy.get(), text.size());
    return copy.release();
}

// `noArguments` is the vector of a record that has none.
OwnedList makeRecord(std::int32_t flags, std::int32_t line, std::string_view keyword,
                     std::span<char* const> arguments, char** noArguments) {
    OwnedList record(new cfgrec);
    record->flags = flags;
    record->ln = line;
    record->op = duplicate(keyword);
    record->argv =
        arguments.empty() ? noArguments : std::make_unique<char*[]>(arguments.size() + 1).release();
    for (const char* argument : arguments) {
        record->argv[record->argc] = duplicate(argument);
        ++record->argc;
    }
    return record;
}

void freeRecord(cfgrec* record) noexcept {
    for (std::int32_t i = 0; i < record->argc; ++i) {
        delete[] record->argv[i];
    }
    if (record->argv != nullav) {
        delete[] record->argv;
    }
    delete[] record->op;
    delete record;
}

class ListBuilder {
public:
    void append(OwnedList record) noexcept {
        cfgrec* added = record.release();
        if (last_ == nullptr) {
            head_.reset(added);
        } else {
            last_->next = added;
        }
        last_ = added;
    }
    cfgrec* release() noexcept { return head_.release(); }

private:
    OwnedList head_;
    cfgrec* last_ = nullptr;
};

cfgrec* cannotOpen(const char* service, CfgFaults& faults) {
    faults.cannotOpen(service, pfile, errno);
    return failedList();
}

cfgrec* readOpened(LineFile& file, const char* service, CfgFaults& faults) {
    ListBuilder list;
    RuleLine rule;
    std::array<char, kRuleLineLimit> buffer{};
    // Every line counts, also of other services: a message names the line as an editor shows it.
    std::int32_t number = 0;
    while (const auto line = file.next(buffer)) {
        ++number;
        const RuleLine::Kind kind = rule.parse(*line, service);
        if (kind == RuleLine::Kind::Rejected) {
            faults.rejected(pfile, number, rule.fault());
        } else if (kind == RuleLine::Kind::Record) {
            list.append(makeRecord(rule.flags(), number, rule.keyword(), rule.arguments(), nullav));
        }
    }
    // Half a table would silently run with wrong settings: it counts as one that cannot be opened.
    return file.failed() ? cannotOpen(service, faults) : list.release();
}

cfgrec* readTable(const char* service, CfgFaults& faults) {
    if (pfile == nullptr) {
        cfg_setpfile(kDefaultTable);
    }
    if (pfile == nullptr) {
        throw std::bad_alloc(); // cfg_setpfile() had no memory for the path
    }
    LineFile file(pfile);
    return file.isOpen() ? readOpened(file, service, faults) : cannotOpen(service, faults);
}

class SendLogFaults : public CfgFaults {
public:
    void cannotOpen(const char* service, const char* path, int error) override {
        const UNIQUE_DATA_T data{.messageId = TABLE_NOT_OPENED};
        SendLog(servContext, connContext, &data, LOG_NOTICE,
                "syserr: configuring %s, cannot open %s: %s", service, path, std::strerror(error));
    }
    void rejected(const char* path, std::int32_t line, CfgFault fault) override {
        const UNIQUE_DATA_T data{.messageId = LINE_REJECTED, .lineNumber = line};
        SendLog(servContext, connContext, &data, LOG_NOTICE, "cfgerr: %s line %d %s", path, line,
                cfg_fault_text(fault));
    }
    void outOfMemory() override {
        const UNIQUE_DATA_T data{.messageId = NO_MEMORY};
        SendLog(servContext, connContext, &data, LOG_NOTICE, "syserr: out of memory");
    }
};

class SyslogFaults : public CfgFaults {
public:
    void cannotOpen(const char* service, const char* path, int error) override {
        syslog(LOG_NOTICE, "syserr: configuring %s, cannot open %s: %s", service, path,
               std::strerror(error));
    }
    void rejected(const char* path, std::int32_t line, CfgFault fault) override {
        syslog(LOG_NOTICE, "cfgerr: %s line %d %s", path, line, cfg_fault_text(fault));
    }
    void outOfMemory() override { syslog(LOG_NOTICE, "syserr: out of memory"); }
};

void setHome(std::string_view location) noexcept {
    const std::size_t length = location.copy(homedir, sizeof homedir - 1);
    homedir[length] = '\0';
}

// True when the line names the install location, which homedir then holds.
bool homeFromProfileLine(std::string_view line) noexcept {
    const std::size_t equals = line.find('=');
    if (equals == std::string_view::npos || line.substr(0, equals) != kProfileKey) {
        return false;
    }
    const std::string_view value = line.substr(equals + 1);
    setHome(value.substr(0, value.find_first_of(" \t\r\n")));
    return true;
}

void homeFromProfile() noexcept {
    LineFile file(kProfilePath);
    std::array<char, 255> buffer{};
    while (file.isOpen()) {
        const auto line = file.next(buffer);
        if (!line || homeFromProfileLine({line->data(), line->size()})) {
            return;
        }
    }
}

void findHome() noexcept {
    // Found anew each time: the environment may have changed since.
    setHome({});
    if (const char* location = std::getenv("TAVORIX")) {
        setHome(location);
    } else {
        homeFromProfile();
    }
}

cfgrec* firstMatch(const char* keyword, cfgrec* record) noexcept {
    while (record != nullptr && std::strcmp(record->op, keyword) != 0) {
        record = record->next;
    }
    return record;
}

} // namespace

cfgrec* cfg_read_observed(const char* service, CfgFaults& faults) {
    try {
        return readTable(service, faults);
    } catch (const std::bad_alloc&) {
        faults.outOfMemory();
        return failedList();
    }
}

cfgrec* cfg_read(const char* service) {
    SendLogFaults faults;
    return cfg_read_observed(service, faults);
}

cfgrec* cfg_read_no_SendLog(const char* service) {
    SyslogFaults faults;
    return cfg_read_observed(service, faults);
}

int cfg_setpfile(const char* path) {
    std::free(pfile);
    pfile = getlocation(path);
    return 0;
}

char* getlocation(const char* path) {
    if (path == nullptr) {
        return nullptr;
    }
    findHome();
    const std::size_t size = std::strlen(homedir) + std::strlen(path) + 1;
    // By malloc(): the callers, pfile among them, release it with free().
    auto* location = static_cast<char*>(std::malloc(size));
    if (location != nullptr) {
        std::snprintf(location, size, "%s%s", homedir, path);
    }
    return location;
}

cfgrec* cfg_get(const char* keyword, cfgrec* list) noexcept {
    cfgrec* found = firstMatch(keyword, list != nullptr ? list : savp);
    // Where the next search without a list of its own goes on.
    savp = found != nullptr ? found->next : nullptr;
    return found;
}

cfgrec* cfg_next(const char* keyword, cfgrec* record) noexcept {
    return record == nullptr ? nullptr : firstMatch(keyword, record->next);
}

void cfg_free(cfgrec* list) noexcept {
    if (cfg_failed(list)) {
        return;
    }
    while (list != nullptr) {
        cfgrec* next = list->next;
        // A search must not go on in what is gone.
        if (savp == list) {
            savp = nullptr;
        }
        freeRecord(list);
        list = next;
    }
}

cfgrec* cfg_copy(const cfgrec* list) {
    ListBuilder copy;
    try {
        for (; list != nullptr; list = list->next) {
            const std::span<char* const> arguments(list->argv,
                                                   static_cast<std::size_t>(list->argc));
            copy.append(makeRecord(list->flags, list->ln, list->op, arguments, nullptr));
        }
        return copy.release();
    } catch (const std::bad_alloc&) {
        // What was copied so far stays allocated: programs that share this library rely on a failed
        // copy releasing nothing.
        static_cast<void>(copy.release());
        SendLogFaults().outOfMemory();
        return failedList();
    }
}
