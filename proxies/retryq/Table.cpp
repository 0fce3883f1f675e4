#include "retryq/Table.h"

#include <algorithm>
#include <numeric>

namespace Retryq {

namespace {

constexpr int kGap = 2; // blanks between columns
// Without a terminal: one address of thousands of bytes must not make every line that long.
constexpr int kWidest = 100;

// Takes what stands in the next line of a cell off the text; ends at a blank, or else before an
// address's "@", where there is one in the second half.
std::string_view takePart(std::string_view& text, std::size_t width) {
    std::size_t length = std::min(width, text.size());
    if (length < text.size()) {
        const std::string_view fitting = text.substr(0, length + 1);
        for (const char end : {'@', ' '}) {
            const std::size_t at = fitting.rfind(end);
            length = at != std::string_view::npos && at > 0 && at >= width / 2 ? at : length;
        }
    }
    const std::string_view part = text.substr(0, length);
    text.remove_prefix(std::min(text.find_first_not_of(' ', length), text.size()));
    return part;
}

std::string cut(std::string_view text, std::size_t width) {
    return text.size() <= width ? std::string(text)
                                : std::string(text.substr(0, width - 2)).append("..");
}

} // namespace

Table::Table(const Screen& screen, std::vector<Column> columns)
    : screen_(screen), columns_(std::move(columns)) {
    for (const Column& column : columns_) {
        widths_.push_back(static_cast<int>(column.title.size()));
    }
}

void Table::measure(std::span<const std::string> cells) {
    for (std::size_t i = 0; i < columns_.size(); ++i) {
        widths_[i] = std::max(widths_[i], static_cast<int>(cells[i].size()));
    }
}

// Takes what is too much from the widest flexible column, again and again: short texts stay whole.
void Table::layOut() {
    for (std::size_t i = 0; i < columns_.size(); ++i) {
        if (columns_[i].fit == Fit::Fixed) {
            widths_[i] = std::max(widths_[i], columns_[i].width);
        }
    }
    for (int& width : widths_) {
        width = screen_.width == 0 ? std::min(width, kWidest) : width;
    }
    const int gaps = kGap * static_cast<int>(columns_.size() - 1);
    int excess = std::accumulate(widths_.begin(), widths_.end(), gaps) - screen_.width;
    while (screen_.width != 0 && excess > 0) {
        int* widest = nullptr;
        for (std::size_t i = 0; i < columns_.size(); ++i) {
            const bool gives = columns_[i].fit != Fit::Fixed && widths_[i] > columns_[i].width;
            widest = gives && (widest == nullptr || widths_[i] > *widest) ? &widths_[i] : widest;
        }
        if (widest == nullptr) {
            break;
        }
        --*widest;
        --excess;
    }
    laidOut_ = true;
}

void Table::header() {
    std::vector<std::string> titles;
    for (const Column& column : columns_) {
        titles.push_back(column.title);
    }
    row(titles, Colour::Bold);
}

// The next line of a row, out of what is left of its cells.
std::string Table::line(std::vector<std::string_view>& cells) const {
    std::string out;
    for (std::size_t i = 0; i < columns_.size(); ++i) {
        const auto width = static_cast<std::size_t>(std::max(widths_[i], 1));
        const bool whole = screen_.width == 0 || columns_[i].fit == Fit::Fixed;
        std::string text;
        if (!whole && columns_[i].fit == Fit::Wrap) {
            text = takePart(cells[i], width);
        } else {
            text = whole ? std::string(cells[i]) : cut(cells[i], width);
            cells[i] = {};
        }
        const std::size_t padding = text.size() < width ? width - text.size() : 0;
        out.append(i == 0 ? 0 : kGap, ' ').append(columns_[i].right ? padding : 0, ' ');
        out.append(text).append(columns_[i].right ? 0 : padding, ' ');
    }
    out.resize(out.find_last_not_of(' ') + 1);
    return out;
}

void Table::row(std::span<const std::string> cells, Colour colour) {
    if (!laidOut_) {
        layOut();
    }
    std::vector<std::string_view> left(cells.begin(), cells.end());
    do {
        screen_.out << screen_.paint(line(left), colour) << '\n';
    } while (std::ranges::any_of(left, [](std::string_view text) { return !text.empty(); }));
}

std::string wrapped(std::string_view text, int width, std::size_t indent) {
    constexpr int kLeast = 20; // columns; on less there is nothing to be read anyway
    std::string out;
    while (width > 0 && text.size() > static_cast<std::size_t>(std::max(width, kLeast))) {
        out += takePart(text, static_cast<std::size_t>(std::max(width, kLeast)));
        out.append("\n").append(indent, ' ');
    }
    return out.append(text);
}

void Table::print(std::span<const std::vector<std::string>> rows) {
    for (const auto& cells : rows) {
        measure(cells);
    }
    header();
    for (const auto& cells : rows) {
        row(cells);
    }
}

} // namespace Retryq
