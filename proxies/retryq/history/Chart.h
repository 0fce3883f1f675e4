// Recipients by hour as a bar chart: in text for a terminal, as a picture for a page.
#pragma once

#include "retryq/history/Tally.h"

#include <string>
#include <vector>

namespace Retryq {

struct HourBar {
    std::time_t hour = 0; // its beginning
    Outcomes outcomes;
};

// A bar for each hour from the first to the last, also for those without mail; of more than
// kMostBars hours the last ones.
inline constexpr std::size_t kMostBars = std::size_t{24} * 14;
[[nodiscard]] std::vector<HourBar> hourBars(const std::map<std::time_t, Outcomes>& hours);

// "2026-11-21 14h", local.
[[nodiscard]] std::string hourText(std::time_t hour);

// The bar on the scale of the longest of `all`, in at most `width` characters ("#" delivered, "="
// deferred, "!" returned or dropped; what there is shows at least one), and the three numbers.
[[nodiscard]] std::string barText(const HourBar& bar, const std::vector<HourBar>& all, int width);

// The same as a picture (SVG), with a legend and a title for each bar.
[[nodiscard]] std::string svgChart(const std::vector<HourBar>& bars);

} // namespace Retryq
