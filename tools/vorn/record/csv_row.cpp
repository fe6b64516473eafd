#include "tools/vorn/record/csv_row.h"

#include "tools/session_report/recording.h"

#include <cstdio>

namespace vorn_cli {

namespace {

// Larger than the longest row: 25 doubles of up to 313 characters and 10 integers.
constexpr std::size_t kLongestRow = 16 * 1024;

} // namespace

std::string_view csv_header() {
    static const std::string header = std::string(session_report::kCsvHeader) + "\n";
    return header;
}

void append_csv_row(std::string& block, const instrument& record) {
    const instrument& r = record;
    char row[kLongestRow];
    const int length = std::snprintf(
        row, sizeof(row),
        "%u,%.16s,%u,%d,%d,%.2f,%d,%.2f,%.2f,%d,%.2f,%d,%.2f,%d,%.2f,%d,%.2f,%d,%.2f,%d,%.2f,%d,"
        "%.2f,%d,%.2f,%d,%.2f,%d,%.2f,%d,%.2f,%d,%.2f,%.2f,%.2f\n",
        static_cast<unsigned>(r.type), reinterpret_cast<const char*>(r.inst_id), r.update_time,
        static_cast<int>(r.update_milli_sec), static_cast<int>(r.change_no), r.last_px,
        static_cast<int>(r.volume), r.turnover, r.open_interest, r.bid_vol[0], r.bid_px[0],
        r.bid_vol[1], r.bid_px[1], r.bid_vol[2], r.bid_px[2], r.bid_vol[3], r.bid_px[3],
        r.bid_vol[4], r.bid_px[4], r.ask_vol[0], r.ask_px[0], r.ask_vol[1], r.ask_px[1],
        r.ask_vol[2], r.ask_px[2], r.ask_vol[3], r.ask_px[3], r.ask_vol[4], r.ask_px[4],
        r.bid_totvol, r.bid_totamount, r.ask_totvol, r.ask_totamount, r.highest_price,
        r.lowest_price);
    if (length > 0) {
        block.append(row, static_cast<std::size_t>(length));
    }
}

} // namespace vorn_cli
