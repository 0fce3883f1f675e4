#include "retryq/Selection.h"

#include "fwall/hexesc.h"

#include <algorithm>
#include <iostream>
#include <set>

namespace Retryq {

namespace {

constexpr std::size_t kShown = 256;
constexpr std::size_t kMeant = 3; // messages that are told of an ambiguous name

struct Found {
    std::string leaf;
    bool accepted;
};

bool fail(const char* command, const std::string& name, const std::string& why) {
    std::cerr << "retryq " << command << ": " << printable(name, kShown) << ' ' << why << '\n';
    return false;
}

// The name's own message goes before those that it begins. `all` is in order.
bool resolve(const char* command, const std::string& name, const std::vector<Found>& all,
             std::set<std::string>& named) {
    const auto first = std::ranges::lower_bound(all, name, {}, &Found::leaf);
    if (first == all.end() || name.empty() || !first->leaf.starts_with(name)) {
        return fail(command, name, "is not in the queue");
    }
    const auto end = std::find_if(
        first, all.end(), [&](const Found& found) { return !found.leaf.starts_with(name); });
    if (end - first > 1 && first->leaf != name) {
        std::string meant = "may be";
        for (auto one = first; one != end && one - first < static_cast<int>(kMeant); ++one) {
            meant.append(one == first ? " " : ", ").append(printable(one->leaf, kShown));
        }
        return fail(command, name, meant + (end - first > static_cast<int>(kMeant) ? " ..." : ""));
    }
    named.insert(first->leaf);
    return true;
}

} // namespace

bool select(const Context& context, const char* command, const std::vector<std::string>& names,
            const Filter& filter, std::vector<std::string>& leaves) {
    std::vector<Found> all;
    const bool opened =
        context.queue.visit([&](const Message& message, const Recipients& recipients) {
            all.push_back({message.leaf, filter.accepts(message, recipients, context.now)});
        });
    if (!opened) {
        (void)cannotOpenSpool(context);
        return false;
    }
    // So that what a name begins stands together.
    std::ranges::sort(all, {}, &Found::leaf);
    std::set<std::string> named;
    bool good = true;
    for (const std::string& name : names) {
        good = resolve(command, name, all, named) && good;
    }
    for (const Found& found : all) {
        if (found.accepted && (names.empty() || named.contains(found.leaf))) {
            leaves.push_back(found.leaf);
        }
    }
    return good;
}

} // namespace Retryq
