#include "tools/session_report/truth_rows.h"

#include "tools/session_report/recording.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <string_view>
#include <vector>

namespace session_report {

namespace {

constexpr std::size_t kLevels = 5;

std::vector<std::string_view> columns_of(std::string_view row) {
    std::vector<std::string_view> columns;
    while (true) {
        const std::size_t comma = row.find(',');
        columns.push_back(row.substr(0, comma));
        if (comma == std::string_view::npos) {
            return columns;
        }
        row.remove_prefix(comma + 1);
    }
}

std::string bar(long long volume, long long largest, std::size_t width) {
    const auto length =
        (static_cast<std::size_t>(volume) * width + static_cast<std::size_t>(largest) - 1) /
        static_cast<std::size_t>(largest);
    std::string text;
    for (std::size_t i = 0; i < length; ++i) {
        text += "▇";
    }
    return text;
}

} // namespace

std::string csv_row(const exchange_sim::ExpectedRecord& record) {
    std::string row = fmt::format(
        "{},{},{},{},{},{:.2f},{},{:.2f},{:.2f}", record.type, record.inst_id.data(),
        record.update_time, record.update_milli_sec, static_cast<int32_t>(record.change_no),
        record.last_px, static_cast<int32_t>(record.volume), record.turnover, record.open_interest);
    for (std::size_t i = 0; i < kLevels; ++i) {
        row += fmt::format(",{},{:.2f}", record.bid_vol[i], record.bid_px[i]);
    }
    for (std::size_t i = 0; i < kLevels; ++i) {
        row += fmt::format(",{},{:.2f}", record.ask_vol[i], record.ask_px[i]);
    }
    return row + fmt::format(",{},{:.2f},{},{:.2f},{:.2f},{:.2f}", record.bid_totvol,
                             record.bid_totamount, record.ask_totvol, record.ask_totamount,
                             record.highest_price, record.lowest_price);
}

std::string ladder(const std::string& row) {
    // Columns of a row: identifier 1, last price 5, volume 6, open interest 8, then volume and
    // price of five bids from 9 and of five asks from 19, high 33, low 34.
    constexpr std::size_t kFirstBid = 9;
    constexpr std::size_t kFirstAsk = 19;
    constexpr std::size_t kBarWidth = 20;
    const auto columns = columns_of(row);
    if (columns.size() != kCsvColumns) {
        return {};
    }
    const auto volume = [&](std::size_t first, std::size_t level) {
        return std::atoll(std::string(columns[first + 2 * level]).c_str());
    };
    long long largest = 1;
    for (std::size_t level = 0; level < kLevels; ++level) {
        largest = std::max({largest, volume(kFirstBid, level), volume(kFirstAsk, level)});
    }
    const auto line = [&](std::string_view name, std::size_t first, std::size_t level) {
        const long long lots = volume(first, level);
        if (lots <= 0) {
            return std::string();
        }
        return fmt::format("    {:>3} {:>12} {:>7}  {}\n", level == 0 ? name : "",
                           columns[first + 2 * level + 1], lots, bar(lots, largest, kBarWidth));
    };
    std::string text =
        fmt::format("  {}: last {}, volume {}, open interest {}, high {}, low {}\n\n", columns[1],
                    columns[5], columns[6], columns[8], columns[33], columns[34]);
    for (std::size_t level = kLevels; level-- > 0;) {
        text += line("ask", kFirstAsk, level);
    }
    text += "        ------------ -------\n";
    for (std::size_t level = 0; level < kLevels; ++level) {
        text += line("bid", kFirstBid, level);
    }
    return text;
}

std::string first_difference(const std::string& recorded, const std::string& expected) {
    const auto names = columns_of(kCsvHeader);
    const auto left = columns_of(recorded);
    const auto right = columns_of(expected);
    for (std::size_t i = 0; i < names.size() && i < left.size() && i < right.size(); ++i) {
        if (left[i] != right[i]) {
            return fmt::format("{}: recorded {}, exchange {}", names[i], left[i], right[i]);
        }
    }
    return "none";
}

} // namespace session_report
