#include "retryq/RunState.h"

#include "email/dispatch/Dispatcher.h"
#include "retryq/Json.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <filesystem>
#include <utility>

namespace Retryq {

namespace {

namespace fs = std::filesystem;

constexpr const char* kName = "retryq-run";
constexpr std::string_view kLink = "/memfd:retryq-run"; // as the system shows such a descriptor
constexpr std::size_t kMostBytes = 1 << 20;
constexpr std::size_t kMostDead = 1000;

Json toJson(const Dispatch::Dispatcher& run) {
    Json hands = Json::array();
    for (const Dispatch::WorkerState& worker : run.workers()) {
        if (!worker.leaf.empty()) {
            hands.push_back({worker.pid, std::time(nullptr) - (run.now() - worker.since)});
        }
    }
    Json dead = Json::array();
    for (const auto& [destination, messages] : run.left()) {
        if (dead.size() < kMostDead) {
            dead.push_back({destination, messages});
        }
    }
    return {{"in_hand", std::move(hands)}, {"dead", std::move(dead)}};
}

// Opened again by its link, and only if it is a plain file: opening a device may do something.
std::string contents(const fs::path& path) {
    std::error_code error;
    if (!fs::is_regular_file(path, error)) {
        return {};
    }
    const UniqueFd fd(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    std::string text(kMostBytes, '\0');
    const ssize_t length = fd.valid() ? ::pread(fd.get(), text.data(), text.size(), 0) : 0;
    text.resize(length < 0 ? 0 : static_cast<std::size_t>(length));
    return text;
}

RunState::Told read(const std::string& text) {
    RunState::Told told;
    const Json object = Json::parse(text, nullptr, false);
    if (!object.is_object()) {
        return told;
    }
    for (const Json& row : object.value("in_hand", Json::array())) {
        if (row.is_array() && row.size() == 2 && row[0].is_number_integer() &&
            row[1].is_number_integer()) {
            told.inHandSince[row[0].get<pid_t>()] = row[1].get<std::time_t>();
        }
    }
    for (const Json& row : object.value("dead", Json::array())) {
        if (row.is_array() && row.size() == 2 && row[0].is_string() &&
            row[1].is_number_unsigned()) {
            told.dead[row[0].get<std::string>()] = row[1].get<std::uint64_t>();
        }
    }
    return told;
}

} // namespace

void RunState::publish(const Dispatch::Dispatcher& run) {
    UniqueFd fresh(::memfd_create(kName, MFD_CLOEXEC));
    const std::string text = toJson(run).dump(-1, ' ', true, Json::error_handler_t::replace);
    if (fresh.valid() &&
        ::write(fresh.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size())) {
        file_ = std::move(fresh); // the older one is there until now
    }
}

RunState::Told RunState::of(pid_t pid) {
    std::error_code error;
    for (fs::directory_iterator at("/proc/" + std::to_string(pid) + "/fd", error), end;
         !error && at != end; at.increment(error)) {
        std::error_code gone;
        if (fs::read_symlink(at->path(), gone).string().starts_with(kLink)) {
            if (const std::string text = contents(at->path()); !text.empty()) {
                return read(text);
            }
        }
    }
    return {};
}

} // namespace Retryq
