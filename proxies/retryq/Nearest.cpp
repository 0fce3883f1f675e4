#include "retryq/Nearest.h"

#include <algorithm>
#include <numeric>
#include <vector>

namespace Retryq {

namespace {

// Letters to add, drop, change or swap with their neighbour to make one word the other.
std::size_t editDistance(std::string_view a, std::string_view b) {
    std::vector<std::size_t> before(b.size() + 1);
    std::vector<std::size_t> last(b.size() + 1);
    std::vector<std::size_t> row(b.size() + 1);
    std::iota(last.begin(), last.end(), 0U);
    for (std::size_t i = 1; i <= a.size(); ++i) {
        row[0] = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            const std::size_t change = last[j - 1] + (a[i - 1] == b[j - 1] ? 0U : 1U);
            row[j] = std::min({last[j] + 1, row[j - 1] + 1, change});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
                row[j] = std::min(row[j], before[j - 2] + 1);
            }
        }
        before.swap(last);
        last.swap(row);
    }
    return last[b.size()];
}

} // namespace

std::string_view nearest(std::string_view word, std::span<const std::string_view> candidates) {
    const auto distance = [word](std::string_view other) { return editDistance(word, other); };
    const auto best = std::ranges::min_element(candidates, {}, distance);
    if (best == candidates.end()) {
        return {};
    }
    const std::size_t tolerated = std::max<std::size_t>(2, best->size() / 4);
    return distance(*best) <= tolerated ? *best : std::string_view();
}

} // namespace Retryq
