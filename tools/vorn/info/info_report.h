#pragma once

// What `vorn info` says, as JSON and as text. Times are the exchange's (UTC+8).

#include "tools/vorn/info/capture_tally.h"

#include <nlohmann/json_fwd.hpp>

#include <functional>
#include <string>

namespace vorn_cli {

// What there is beside the tallies.
struct CaptureFacts {
    std::string file;
    CaptureFormat format;
    std::string damage;       // of the end of the file; empty if there is none
    bool interrupted = false; // by a signal, before the end
};

// "2026-01-15 09:00:00.000000123"
std::string exchange_time(uint64_t timestamp_ns);

// "futures", "options", "other", or empty as long as no dictionary has come.
std::string product_name(const InstrumentTally& instrument);

nlohmann::json summary_json(const CaptureFacts& facts, const CaptureTallies& tallies);
nlohmann::json instrument_json(Side side, uint32_t inst_no, const InstrumentTally& instrument);
nlohmann::json gap_json(const Gap& gap, const CaptureTallies& tallies);

// Lines for people.
std::vector<std::string> summary_lines(const CaptureFacts& facts, const CaptureTallies& tallies);
std::string instrument_heading();
std::string instrument_line(Side side, uint32_t inst_no, const InstrumentTally& instrument);
std::string gap_line(const Gap& gap, const CaptureTallies& tallies);

// Those that the capture names or changes, SHFE first, by number.
void for_each_instrument(
    const CaptureTallies& tallies,
    const std::function<void(Side side, uint32_t inst_no, const InstrumentTally&)>& on_instrument);

// How many, by what is known of them.
struct InstrumentCounts {
    uint64_t all = 0;
    uint64_t listed = 0;  // in a dictionary
    uint64_t changed = 0; // by a multicast line
    uint64_t futures = 0; // of those listed
    uint64_t options = 0;
    uint64_t other = 0;
};
InstrumentCounts count_instruments(const CaptureTallies& tallies, Side side);

} // namespace vorn_cli
