// Rows in columns: laid out for a person's terminal, one line a row in a pipe.
#pragma once

#include "retryq/Format.h"

#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace Retryq {

// A table is as wide as its texts need. Where the terminal is narrower, the flexible columns give
// way: what does not fit is cut and ends in "..", or goes on in the lines below when the column
// wraps. In a pipe nothing is cut or wrapped.
class Table {
public:
    enum class Fit {
        Fixed,
        Cut,
        Wrap,
    };
    struct Column {
        std::string title;
        int width; // at least; a flexible column never gets narrower
        bool right = false;
        Fit fit = Fit::Fixed;
    };

    Table(const Screen& screen, std::vector<Column> columns);

    // Makes room for these cells. Rows that were not measured are printed all the same, in columns
    // that may not line up.
    void measure(std::span<const std::string> cells);

    void header();
    // The cells hold printable text, one a column; the last column is not padded.
    void row(std::span<const std::string> cells, Colour colour = Colour::Plain);

    // Measures all rows, then prints header and rows.
    void print(std::span<const std::vector<std::string>> rows);

private:
    void layOut();
    [[nodiscard]] std::string line(std::vector<std::string_view>& cells) const;

    Screen screen_;
    std::vector<Column> columns_;
    std::vector<int> widths_; // of the texts until layOut(), of the columns then
    bool laidOut_ = false;
};

// The text in lines of at most `width` columns (0: one line), cut at blanks where there are some;
// each line but the first begins with `indent` blanks, which do not count.
[[nodiscard]] std::string wrapped(std::string_view text, int width, std::size_t indent);

} // namespace Retryq
