#pragma once

// A picture of a terminal as cells, without a terminal. Whatever is put beyond its edges is cut.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace vorn_cli {

// What a cell means; what it looks like is decided where it is shown.
enum class Style : uint8_t { kPlain, kBold, kDim, kGood, kWarning, kBad, kBid, kAsk, kChosen };

struct Cell {
    char32_t glyph = U' '; // one column wide
    Style style = Style::kPlain;
};

class Screen {
public:
    Screen(int width, int height);

    int width() const { return width_; }
    int height() const { return height_; }
    const Cell& at(int row, int column) const {
        return cells_[static_cast<std::size_t>(row) * static_cast<std::size_t>(width_) +
                      static_cast<std::size_t>(column)];
    }

    // Printable ASCII; every other byte shows as '?'. Returns the column behind the text. No column
    // at `end` or beyond is touched.
    int put(int row, int column, std::string_view text, Style style = Style::kPlain);
    int put(int row, int column, int end, std::string_view text, Style style = Style::kPlain);
    // The text ends before column `end` and is cut on its left at `begin`.
    void put_right(int row, int begin, int end, std::string_view text, Style style = Style::kPlain);
    void put_glyph(int row, int column, char32_t glyph, Style style = Style::kPlain);
    // Changes only how the cells from `begin` to before `end` look.
    void restyle(int row, int begin, int end, Style style);

    // The rows in UTF-8 without blanks at their ends.
    std::vector<std::string> lines() const;

private:
    Cell* cell(int row, int column);

    int width_;
    int height_;
    std::vector<Cell> cells_;
};

} // namespace vorn_cli
