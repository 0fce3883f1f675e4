#include "retryq/history/Chart.h"

#include <algorithm>
#include <array>
#include <sstream>

namespace Retryq {

namespace {

constexpr std::time_t kHour = 3600;

// The picture, in pixels.
constexpr int kBarWidth = 12;
constexpr int kHeight = 240; // of the tallest bar
constexpr int kTop = 40;     // above it, for the legend
constexpr int kMargin = 10;

struct Series {
    const char* name;
    char mark;
    const char* colour;
};
constexpr std::array kSeries{Series{"delivered", '#', "#2e7d32"},
                             Series{"deferred", '=', "#f9a825"},
                             Series{"returned or dropped", '!', "#c62828"}};

using Parts = std::array<std::uint64_t, kSeries.size()>;

Parts partsOf(const Outcomes& o) {
    return {o.delivered, o.deferred, o.returned + o.dropped};
}

std::uint64_t sum(const Outcomes& o) {
    return o.delivered + o.failed();
}

std::uint64_t largest(const std::vector<HourBar>& bars) {
    std::uint64_t most = 1;
    for (const HourBar& bar : bars) {
        most = std::max(most, sum(bar.outcomes));
    }
    return most;
}

void writeLegend(std::ostream& out) {
    int x = kMargin;
    for (const Series& series : kSeries) {
        out << "<rect x=\"" << x << R"(" y="10" width="10" height="10" fill=")" << series.colour
            << "\"/><text x=\"" << x + 14 << "\" y=\"19\">" << series.name << "</text>\n";
        x += 110;
    }
}

// One hour: its parts on top of each other, with a title that tells the numbers.
void writeBar(std::ostream& out, const HourBar& bar, int x, double most) {
    const Parts parts = partsOf(bar.outcomes);
    out << "<g><title>" << hourText(bar.hour);
    for (std::size_t i = 0; i < parts.size(); ++i) {
        out << ", " << parts[i] << ' ' << kSeries[i].name;
    }
    out << "</title>";
    double y = kTop + kHeight;
    for (std::size_t i = 0; i < parts.size(); ++i) {
        const double height = static_cast<double>(parts[i]) / most * kHeight;
        y -= height;
        out << "<rect x=\"" << x << "\" y=\"" << y << "\" width=\"" << kBarWidth - 2
            << "\" height=\"" << height << "\" fill=\"" << kSeries[i].colour << "\"/>";
    }
    out << "</g>\n";
}

} // namespace

std::vector<HourBar> hourBars(const std::map<std::time_t, Outcomes>& hours) {
    std::vector<HourBar> bars;
    if (hours.empty()) {
        return bars;
    }
    const std::time_t last = hours.rbegin()->first;
    const std::time_t span = static_cast<std::time_t>(kMostBars - 1) * kHour;
    for (std::time_t hour = std::max(hours.begin()->first, last - span); hour <= last;
         hour += kHour) {
        const auto found = hours.find(hour);
        bars.push_back({hour, found != hours.end() ? found->second : Outcomes{}});
    }
    return bars;
}

std::string hourText(std::time_t hour) {
    std::tm fields{};
    std::array<char, 32> text{};
    if (::localtime_r(&hour, &fields) == nullptr ||
        std::strftime(text.data(), text.size(), "%Y-%m-%d %Hh", &fields) == 0) {
        return "-";
    }
    return text.data();
}

std::string barText(const HourBar& bar, const std::vector<HourBar>& all, int width) {
    const auto columns = static_cast<double>(std::max(width, 10));
    const auto most = static_cast<double>(largest(all));
    const Parts parts = partsOf(bar.outcomes);
    std::string text;
    std::string numbers;
    for (std::size_t i = 0; i < parts.size(); ++i) {
        const auto share = static_cast<std::size_t>(static_cast<double>(parts[i]) / most * columns);
        text.append(parts[i] == 0 ? 0 : std::max<std::size_t>(share, 1), kSeries[i].mark);
        numbers.append(i == 0 ? "" : "/").append(std::to_string(parts[i]));
    }
    return text + (text.empty() ? "" : " ") + numbers;
}

std::string svgChart(const std::vector<HourBar>& bars) {
    const int width = std::max<int>(360, static_cast<int>(bars.size()) * kBarWidth + 2 * kMargin);
    const auto most = static_cast<double>(largest(bars));
    std::ostringstream out;
    out << R"(<svg xmlns="http://www.w3.org/2000/svg" width=")" << width << R"(" height=")"
        << kTop + kHeight + 30 << R"(" font-family="sans-serif" font-size="11">)" << '\n';
    writeLegend(out);
    int x = kMargin;
    for (const HourBar& bar : bars) {
        writeBar(out, bar, x, most);
        x += kBarWidth;
    }
    if (!bars.empty()) {
        out << "<text x=\"10\" y=\"" << kTop + kHeight + 20 << "\">" << hourText(bars.front().hour)
            << " to " << hourText(bars.back().hour) << ", at most " << largest(bars)
            << " recipients an hour</text>\n";
    }
    out << "</svg>\n";
    return out.str();
}

} // namespace Retryq
