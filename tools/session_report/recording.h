#pragma once

// What a CSV file of the recorder holds.

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <unordered_map>

namespace session_report {

inline constexpr std::string_view kCsvHeader =
    "type,inst_id,update_time,update_milli_sec,change_no,last_px,volume,turnover,open_interest,"
    "bid1_volume,bid1_price,bid2_volume,bid2_price,bid3_volume,bid3_price,bid4_volume,bid4_price,"
    "bid5_volume,bid5_price,ask1_volume,ask1_price,ask2_volume,ask2_price,ask3_volume,ask3_price,"
    "ask4_volume,ask4_price,ask5_volume,ask5_price,bid_volume,bid_amount,ask_volume,ask_amount,"
    "highest_price,lowest_price";
inline constexpr std::size_t kCsvColumns = 35;

struct InstrumentRows {
    uint64_t rows = 0;
    std::string last_row; // without the line feed
};

struct Recording {
    uint64_t rows = 0;
    uint64_t bytes = 0;
    std::unordered_map<std::string, InstrumentRows> instruments; // by identifier
};

// Reads a recording. A last line without a line feed belongs to a process that was killed and is
// left out. Throws std::runtime_error with a text for the user: no such file, not a recording, a
// row without 35 columns.
Recording read_recording(const std::filesystem::path& path);

} // namespace session_report
