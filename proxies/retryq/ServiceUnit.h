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

    // retryer@INSTANCE.service, or the template for it, with the drop-ins of both; with an empty
    // instance the template's alone. Nothing when no place has it. A file of more than 64 KiB, or
    // beyond the hundredth drop-in, is not read.
    [[nodiscard]] static std::optional<ServiceUnit>
    read(const std::string& instance,
         const std::vector<std::string>& places = ServiceUnit::places());

    // The instances that have drop-ins, a file or an enabled timer of their own, in order; the
    // first is the empty one, for all the others.
    [[nodiscard]] static std::vector<std::string>
    instances(const std::vector<std::string>& places = ServiceUnit::places());

    // Its file; the instance's name behind it where that is not the file's.
    [[nodiscard]] std::string name() const;
    [[nodiscard]] const std::string& user() const noexcept { return user_; }   // empty: root
    [[nodiscard]] const std::string& group() const noexcept { return group_; } // empty: the user's

    // True when the sandbox lets the walkers change files in the directory. Links are followed.
    [[nodiscard]] bool mayWrite(const std::string& directory) const;

private:
    void take(std::string_view text);
    void takeSetting(std::string_view key, std::string_view value);

    std::string path_;
    std::string instance_;
    std::string user_;
    std::string group_;
    bool strict_ = false; // everything is read-only but what is listed
    std::vector<std::string> writable_;
};

} // namespace Retryq
