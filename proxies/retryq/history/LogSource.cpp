#include "retryq/history/LogSource.h"

#include "fwall/UniqueFd.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <memory>

namespace Retryq {

namespace {

constexpr unsigned kBlock = 256U * 1024;

// Cuts what is read into lines; keeps the beginning of one that is not whole yet.
class LineCutter {
public:
    explicit LineCutter(const LineVisitor& visit) : visit_(visit) {}

    void take(std::string_view bytes) {
        for (std::size_t end = bytes.find('\n'); end != std::string_view::npos;
             end = bytes.find('\n')) {
            tell(bytes.substr(0, end));
            bytes.remove_prefix(end + 1);
        }
        held_ += bytes;
        // No line of the gateway is as long: memory must not grow with what somebody logs.
        if (held_.size() >= kLineLimit) {
            finish();
        }
    }

    void finish() {
        if (!held_.empty()) {
            visit_(held_);
            held_.clear();
        }
    }

private:
    void tell(std::string_view rest) {
        if (held_.empty()) {
            visit_(rest);
        } else {
            held_ += rest;
            finish();
        }
    }

    const LineVisitor& visit_;
    std::string held_;
};

struct CloseGz {
    void operator()(gzFile_s* file) const noexcept { ::gzclose_r(file); }
};

// An open file for reading; a FIFO or device is refused and never waited for.
UniqueFd openRegular(const std::string& path) {
    UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat status {};
    if (!fd.valid() || ::fstat(fd.get(), &status) != 0) {
        return {};
    }
    if (!S_ISREG(status.st_mode)) {
        errno = ENXIO;
        return {};
    }
    return fd;
}

// Runs journalctl with its output in a pipe. -1 when it cannot be run.
pid_t startJournal(std::time_t since, UniqueFd& output) {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
        return -1;
    }
    output.reset(ends[0]);
    const UniqueFd input(ends[1]);
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, input.get(), STDOUT_FILENO);
    std::string from = "--since=@" + std::to_string(since);
    std::array<std::string, 8> words{"journalctl",
                                     "--quiet",
                                     "--no-pager",
                                     "--output=short-iso",
                                     "--identifier=retryer",
                                     "--identifier=retryq",
                                     "--utc",
                                     from};
    std::array<char*, 9> arguments{};
    std::ranges::transform(words, arguments.begin(), [](std::string& word) { return word.data(); });
    pid_t child = -1;
    if (::posix_spawnp(&child, "journalctl", &actions, nullptr, arguments.data(), environ) != 0) {
        child = -1;
    }
    ::posix_spawn_file_actions_destroy(&actions);
    return child;
}

bool endedWell(pid_t child) {
    int status = 0;
    while (::waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) {
            return false;
        }
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

bool exists(const std::string& path) {
    return ::access(path.c_str(), R_OK) == 0;
}

} // namespace

bool readLogFile(const std::string& path, const LineVisitor& visit) {
    UniqueFd fd = openRegular(path);
    if (!fd.valid()) {
        return false;
    }
    // Plain text passes through.
    const std::unique_ptr<gzFile_s, CloseGz> file(::gzdopen(fd.get(), "rb"));
    if (!file) {
        errno = ENOMEM;
        return false;
    }
    static_cast<void>(fd.release()); // `file` closes it
    ::gzbuffer(file.get(), kBlock);
    const auto room = std::make_unique_for_overwrite<char[]>(kBlock);
    LineCutter cutter(visit);
    int got = 0;
    while ((got = ::gzread(file.get(), room.get(), kBlock)) > 0) {
        cutter.take({room.get(), static_cast<std::size_t>(got)});
    }
    cutter.finish();
    int error = Z_OK;
    ::gzerror(file.get(), &error);
    if (got < 0 || (error != Z_OK && error != Z_STREAM_END)) {
        errno = error == Z_ERRNO ? errno : EINVAL;
        return false;
    }
    return true;
}

bool readJournal(std::time_t since, const LineVisitor& visit) {
    UniqueFd output;
    const pid_t child = startJournal(since, output);
    if (child < 0) {
        return false;
    }
    const auto room = std::make_unique_for_overwrite<char[]>(kBlock);
    LineCutter cutter(visit);
    for (;;) {
        const ssize_t got = ::read(output.get(), room.get(), kBlock);
        if (got > 0) {
            cutter.take({room.get(), static_cast<std::size_t>(got)});
        } else if (got == 0 || errno != EINTR) {
            break;
        }
    }
    cutter.finish();
    // Before waiting for it: a journalctl that still has something to say would wait for us.
    output.reset();
    return endedWell(child);
}

std::vector<std::string> usualLogFiles() {
    constexpr std::array kNames{"/var/log/daemon.log", "/var/log/syslog", "/var/log/messages"};
    constexpr int kRotated = 99;
    std::vector<std::string> files;
    for (const std::string name : kNames) {
        if (!exists(name)) {
            continue;
        }
        for (int age = kRotated; age > 0; --age) {
            const std::string old = name + "." + std::to_string(age);
            for (const std::string& file : {old + ".gz", old}) {
                if (exists(file)) {
                    files.push_back(file);
                }
            }
        }
        files.push_back(name);
        break; // the same lines may stand in more than one of them
    }
    return files;
}

std::int64_t secondsOf(std::string_view text) {
    constexpr std::string_view kUnits = "smhd";
    constexpr std::array<std::int64_t, 4> kSeconds{1, 60, 3600, 86400};
    constexpr std::int64_t kMost = 1'000'000'000;
    text.remove_prefix(text.starts_with('-') ? 1 : 0);
    std::int64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const std::string_view unit = text.substr(static_cast<std::size_t>(end - text.data()));
    if (error != std::errc() || unit.size() > 1 || number < 0 || number > kMost) {
        return -1;
    }
    const std::size_t at = unit.empty() ? 0 : kUnits.find(unit[0]);
    return at == std::string_view::npos ? -1 : number * kSeconds.at(at);
}

bool readSince(std::string_view text, std::time_t now, std::time_t& since) {
    if (const std::int64_t seconds = secondsOf(text); seconds >= 0) {
        since = now - seconds;
        return true;
    }
    const std::string date(text);
    for (const char* form : {"%Y-%m-%d %H:%M:%S", "%Y-%m-%d %H:%M", "%Y-%m-%d"}) {
        std::tm fields{};
        fields.tm_isdst = -1;
        const char* const end = ::strptime(date.c_str(), form, &fields);
        if (end != nullptr && *end == '\0') {
            since = ::mktime(&fields);
            return true;
        }
    }
    return false;
}

} // namespace Retryq
