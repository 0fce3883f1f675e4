// The rights of another user, for a while: what is tried meanwhile succeeds and fails as it would
// for that user.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace Retryq {

class ActingAs {
public:
    // Only root becomes somebody else; for others, and for an empty name, nothing changes. failed()
    // tells when the user or the group does not exist, or the system refuses: the rights are then
    // root's still. With a group, that in place of the user's own.
    explicit ActingAs(const std::string& user, const std::string& group = {});
    ~ActingAs();

    ActingAs(const ActingAs&) = delete;
    ActingAs& operator=(const ActingAs&) = delete;

    [[nodiscard]] bool failed() const noexcept { return failed_; }

private:
    void giveBack() const noexcept;

    std::vector<gid_t> groups_; // root's own, to be given back
    gid_t group_;
    bool changed_ = false;
    bool failed_ = false;
};

} // namespace Retryq
