// The systemd unit that starts the walkers, as far as it decides what they may do: its user and the
// directories that its sandbox lets them write to. Read from the files; systemd is not asked.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace Retryq {

class ServiceUnit {
public:
    // Where systemd looks for units, the first place first.
    static const std::vector<std::string>& places();

    // retryer@.service with its drop-ins, from the first place that has it. Nothing when none has.
    // A file of more than 64 KiB, or beyond the hundredth drop-in, is not read.
    [[nodiscard]] static std::optional<ServiceUnit>
    read(const std::vector<std::string>& places = ServiceUnit::places());

    [[nodiscard]] const std::string& path() const noexcept { return path_; }
    [[nodiscard]] const std::string& user() const noexcept { return user_; } // empty: root

    // True when the sandbox lets the walkers change files in the directory. Links are followed.
    [[nodiscard]] bool mayWrite(const std::string& directory) const;

private:
    void take(std::string_view text);
    void takeSetting(std::string_view key, std::string_view value);

    std::string path_;
    std::string user_;
    bool strict_ = false; // everything is read-only but what is listed
    std::vector<std::string> writable_;
};

} // namespace Retryq
