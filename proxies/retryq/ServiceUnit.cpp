#include "retryq/ServiceUnit.h"

#include "fwall/UniqueFd.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <set>

namespace Retryq {

namespace {

namespace fs = std::filesystem;

constexpr std::size_t kMostBytes = 65536;
constexpr std::size_t kMostDropIns = 100;
constexpr std::size_t kMostInstances = 20;
constexpr std::string_view kPrefix = "retryer@";
constexpr std::string_view kBlanks = " \t\r";

std::string_view trimmed(std::string_view text) noexcept {
    text.remove_prefix(std::min(text.find_first_not_of(kBlanks), text.size()));
    return text.substr(0, text.find_last_not_of(kBlanks) + 1);
}

// Nothing for what is no readable file of bounded size.
std::optional<std::string> contents(const std::string& path) {
    const UniqueFd fd(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat status {};
    if (!fd.valid() || ::fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return std::nullopt;
    }
    std::string text(kMostBytes + 1, '\0');
    const ssize_t length = ::read(fd.get(), text.data(), text.size());
    if (length < 0 || static_cast<std::size_t>(length) > kMostBytes) {
        return std::nullopt;
    }
    text.resize(static_cast<std::size_t>(length));
    return text;
}

std::string nameOf(const std::string& instance) {
    return std::string(kPrefix) + instance + ".service";
}

// By name; one of an earlier place stands for those of the same name in later ones, and in one
// place the instance's for the template's.
std::map<std::string, std::string> dropIns(const std::string& instance,
                                           const std::vector<std::string>& places) {
    std::map<std::string, std::string> found;
    const auto look = [&found](const std::string& directory) {
        std::error_code error;
        for (fs::directory_iterator at(directory, error), end;
             !error && at != end && found.size() < kMostDropIns; at.increment(error)) {
            if (at->path().extension() == ".conf") {
                found.emplace(at->path().filename(), at->path());
            }
        }
    };
    for (const std::string& place : places) {
        look(place + "/" + nameOf(instance) + ".d");
        if (!instance.empty()) {
            look(place + "/" + nameOf("") + ".d");
        }
    }
    return found;
}

} // namespace

const std::vector<std::string>& ServiceUnit::places() {
    static const std::vector<std::string> kPlaces{"/etc/systemd/system", "/run/systemd/system",
                                                  "/usr/local/lib/systemd/system",
                                                  "/usr/lib/systemd/system", "/lib/systemd/system"};
    return kPlaces;
}

// An instance's own file goes before the template, wherever they stand.
std::optional<ServiceUnit> ServiceUnit::read(const std::string& instance,
                                             const std::vector<std::string>& places) {
    ServiceUnit unit;
    unit.instance_ = instance;
    for (const std::string& name : {nameOf(instance), nameOf("")}) {
        for (const std::string& place : places) {
            // The first place that has the unit hides it in all others.
            unit.path_ = std::string(place).append("/").append(name);
            const auto text = contents(unit.path_);
            if (!text) {
                continue;
            }
            unit.take(*text);
            for (const auto& [file, path] : dropIns(instance, places)) {
                unit.take(contents(path).value_or(""));
            }
            return unit;
        }
    }
    return std::nullopt;
}

std::vector<std::string> ServiceUnit::instances(const std::vector<std::string>& places) {
    std::set<std::string> found{""};
    const auto look = [&found](const std::string& directory) {
        std::error_code error;
        for (fs::directory_iterator at(directory, error), end;
             !error && at != end && found.size() < kMostInstances; at.increment(error)) {
            const std::string name = at->path().filename();
            const std::size_t dot = name.find('.');
            if (name.starts_with(kPrefix) && dot != std::string::npos) {
                found.insert(name.substr(kPrefix.size(), dot - kPrefix.size()));
            }
        }
    };
    for (const std::string& place : places) {
        look(place);
        look(place + "/timers.target.wants");
    }
    return {found.begin(), found.end()};
}

void ServiceUnit::take(std::string_view text) {
    std::string_view section;
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        const std::string_view line = trimmed(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
        const std::size_t equals = line.find('=');
        if (line.starts_with('[')) {
            section = line;
        } else if (section == "[Service]" && equals != std::string_view::npos) {
            takeSetting(trimmed(line.substr(0, equals)), trimmed(line.substr(equals + 1)));
        }
    }
}

void ServiceUnit::takeSetting(std::string_view key, std::string_view value) {
    if (key == "User") {
        user_ = value;
    } else if (key == "Group") {
        group_ = value;
    } else if (key == "ProtectSystem") {
        strict_ = value == "strict";
        // As in systemd, an empty value forgets those before.
    } else if (key == "ReadWritePaths" && value.empty()) {
        writable_.clear();
    } else if (key == "ReadWritePaths") {
        while (!value.empty()) {
            const std::string_view word = value.substr(0, value.find_first_of(kBlanks));
            value = trimmed(value.substr(word.size()));
            // Marks in front of the path ("-", "+") change nothing about where it is.
            const std::size_t at = word.find('/');
            writable_.emplace_back(at < word.size() ? word.substr(at) : word);
        }
    }
}

std::string ServiceUnit::name() const {
    const bool own = path_.ends_with("/" + nameOf(instance_));
    return own ? path_ : path_ + " (" + nameOf(instance_) + ")";
}

bool ServiceUnit::mayWrite(const std::string& directory) const {
    const auto real = [](const std::string& path) {
        std::error_code error;
        const fs::path found = fs::weakly_canonical(path, error);
        return (error ? fs::path(path) : found) / ""; // whole names are compared
    };
    const std::string place = real(directory);
    return !strict_ || std::ranges::any_of(writable_, [&](const std::string& path) {
        return place.starts_with(real(path).string());
    });
}

} // namespace Retryq
