#include "tools/vorn/top/top_ladder.h"

#include "tools/vorn/feed/feed_text.h"

#include <algorithm>
#include <cmath>
#include <fmt/format.h>
#include <span>

namespace vorn_cli {

namespace {

constexpr int kLevels = 10;
constexpr int kMostDecimals = 4;
constexpr double kLargestFixed = 1e9; // longer numbers are no prices and are shown by magnitude

struct Level {
    double price = 0;
    int32_t volume = 0;
};

// How many decimals all of them need.
int decimals_of(std::span<const double> prices) {
    int decimals = 0;
    for (const double price : prices) {
        double scaled = std::abs(price);
        for (int i = 0; i < kMostDecimals && scaled < kLargestFixed; ++i) {
            if (i >= decimals && std::abs(scaled - std::round(scaled)) > 1e-6) {
                decimals = i + 1;
            }
            scaled *= 10;
        }
    }
    return decimals;
}

std::string price_text(double price, int decimals) {
    if (!std::isfinite(price)) {
        return "-";
    }
    return std::abs(price) < kLargestFixed ? fmt::format("{:.{}f}", price, decimals)
                                           : fmt::format("{:.3g}", price);
}

// A bar of `share` (0 to 1) of `width` columns, in eighths where there are glyphs for it. What is
// not nothing has at least the smallest one.
void draw_bar(Screen& screen, int row, int column, int width, double share, Style style,
              bool unicode) {
    const int parts = unicode ? 8 : 1;
    const int whole = std::max(width, 0) * parts;
    int filled = std::clamp(static_cast<int>(std::lround(share * whole)), 0, whole);
    filled = share > 0 && whole > 0 ? std::max(filled, 1) : filled;
    for (; filled > 0; filled -= parts, ++column) {
        constexpr char32_t kFull = U'\u2588';
        const int missing = std::max(parts - filled, 0);
        screen.put_glyph(row, column, unicode ? kFull + static_cast<char32_t>(missing) : U'#',
                         style);
    }
}

struct Columns {
    int volume_end;
    int price_end;
    int bar;
};

class Ladder {
public:
    Ladder(Screen& screen, const Area& area, const InstrumentState& state, bool unicode)
        : screen_(screen), area_(area), record_(state.record), unicode_(unicode) {
        double prices[2 * kLevels + 1] = {record_.last_px};
        std::size_t count = 1;
        std::size_t longest = 1;
        for (int i = 0; i < kLevels; ++i) {
            for (const Level& level : {bid(i), ask(i)}) {
                if (level.volume != 0) {
                    prices[count++] = level.price;
                    most_ = std::max(most_, level.volume);
                    longest = std::max(longest, std::to_string(level.volume).size());
                }
            }
        }
        decimals_ = decimals_of({prices, count});
        std::size_t price_width = 1;
        for (std::size_t i = 0; i < count; ++i) {
            price_width = std::max(price_width, price_text(prices[i], decimals_).size());
        }
        // Price first: where there is little room, it is what remains.
        columns_.price_end = std::min(area.right, area.left + static_cast<int>(price_width) + 1);
        columns_.volume_end =
            std::min(area.right, columns_.price_end + static_cast<int>(longest) + 2);
        columns_.bar = columns_.volume_end + 1;
    }

    void draw() {
        int row = area_.top;
        if (area_.height() > 3) {
            draw_heading(row++);
        }
        const int levels = std::min(kLevels, (area_.bottom - row) / 2);
        const bool spread = area_.bottom - row > 2 * levels;
        for (int i = levels; i > 0; --i) {
            draw_level(row++, ask(i - 1), Style::kAsk);
        }
        if (spread) {
            draw_spread(row++);
        }
        for (int i = 0; i < levels; ++i) {
            draw_level(row++, bid(i), Style::kBid);
        }
    }

private:
    Level bid(int i) const { return {record_.bid_px[i], record_.bid_vol[i]}; }
    Level ask(int i) const { return {record_.ask_px[i], record_.ask_vol[i]}; }

    void put(int row, int& column, const std::string& text, Style style) {
        if (column + static_cast<int>(text.size()) <= area_.right) {
            column = screen_.put(row, column, area_.right, text, style) + 2;
        }
    }
    void draw_heading(int row) {
        int column = area_.left + 1;
        put(row, column, instrument_text(record_.inst_id), Style::kBold);
        put(row, column, price_text(record_.last_px, decimals_), Style::kBold);
        put(row, column, "volume " + grouped(record_.volume), Style::kPlain);
        put(row, column, "change " + grouped(record_.change_no), Style::kDim);
        if (std::isfinite(record_.open_interest) && record_.open_interest >= 0 &&
            record_.open_interest < kLargestFixed) {
            put(row, column,
                "open interest " + grouped(static_cast<uint64_t>(record_.open_interest)),
                Style::kDim);
        }
    }
    void draw_spread(int row) {
        const Level best_bid = bid(0);
        const Level best_ask = ask(0);
        if (best_bid.volume != 0 && best_ask.volume != 0) {
            int column = area_.left + 1;
            put(row, column, "spread " + price_text(best_ask.price - best_bid.price, decimals_),
                Style::kDim);
        }
    }
    void draw_level(int row, const Level& level, Style style) {
        if (level.volume == 0) {
            screen_.put_right(row, area_.left, columns_.price_end, "-", Style::kDim);
            return;
        }
        screen_.put_right(row, area_.left, columns_.price_end, price_text(level.price, decimals_),
                          style);
        screen_.put_right(row, columns_.price_end, columns_.volume_end,
                          std::to_string(level.volume));
        draw_bar(screen_, row, columns_.bar, area_.right - 1 - columns_.bar,
                 most_ > 0 ? static_cast<double>(level.volume) / most_ : 0, style, unicode_);
    }

    Screen& screen_;
    Area area_;
    instrument record_;
    bool unicode_;
    Columns columns_{};
    int decimals_ = 0;
    int32_t most_ = 0;
};

} // namespace

void draw_ladder(Screen& screen, const Area& area, const InstrumentState& state, bool unicode) {
    Ladder(screen, area, state, unicode).draw();
}

} // namespace vorn_cli
