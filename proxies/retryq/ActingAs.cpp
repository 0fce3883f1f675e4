#include "retryq/ActingAs.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <cstdlib>

namespace Retryq {

ActingAs::ActingAs(const std::string& user, const std::string& group) : group_(::getegid()) {
    if (user.empty() || ::geteuid() != 0) {
        return;
    }
    const passwd* const entry = ::getpwnam(user.c_str());
    const int count = ::getgroups(0, nullptr);
    groups_.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
    const struct group* const named = group.empty() ? nullptr : ::getgrnam(group.c_str());
    if (entry == nullptr || (named == nullptr && !group.empty()) ||
        ::getgroups(count, groups_.data()) < 0) {
        failed_ = true;
        return;
    }
    changed_ = true;
    // The user last: afterwards there is no right to change the groups.
    const gid_t first = named == nullptr ? entry->pw_gid : named->gr_gid;
    failed_ = ::initgroups(user.c_str(), first) != 0 || ::setegid(first) != 0 ||
              ::seteuid(entry->pw_uid) != 0;
    if (failed_) {
        giveBack();
        changed_ = false;
    }
}

ActingAs::~ActingAs() {
    if (changed_) {
        giveBack();
    }
}

// When the rights cannot be given back whole, nothing may go on with what is left of them.
void ActingAs::giveBack() const noexcept {
    if (::seteuid(0) != 0 || ::setegid(group_) != 0 ||
        ::setgroups(groups_.size(), groups_.data()) != 0) {
        std::abort();
    }
}

} // namespace Retryq
