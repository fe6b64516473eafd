#pragma once

// A feed as JSON: what `vorn top --json` prints and `vorn serve` answers. Names do not change their
// meaning; new ones may come.
//
// Units are in the names: _ns for nanoseconds, _s for seconds, _per_s for rates. A time (time_ns,
// since_ns, ...) is in nanoseconds since the Unix epoch and null when there is none. A number that
// is not finite is null.

#include "tools/vorn/bus_view/feed_view.h"

#include <nlohmann/json_fwd.hpp>

namespace vorn_cli {

// {
//   "type": "status",
//   "bus": "live",                name of the bus
//   "state": "live",              live, loading, stale, dead, stopped or absent: feed_state.h
//   "problem": null,              absent: a text that says why and what to do
//   "time_ns": ...,               when this was seen
//   "phase": "live",              stopped, bring_up, snapshot, replay or live
//   "phase_since_ns": ...,        null: the feed has not begun
//   "last_update_ns": ...,        null: no update yet
//   "age_s": 0.004,               of the last update; null: no update yet
//   "updates_per_s": 5120.4,      over window_s at most
//   "frames_per_s": 9830.0,
//   "window_s": 5.0,
//   "writer": {                   null when absent
//     "pid": 4711, "generation": 3, "heartbeat_age_s": 0.05
//   },
//   "ring": {                     null when absent
//     "records": 65536,           how many it holds
//     "head": 1048576,            number of the newest
//     "lost": 0,                  overwritten before they were read
//     "laps": 0                   in how many pieces
//   },
//   "counters": {...},            null until the writer has beaten once; see below
//   "last_gap": {                 null: there was none
//     "time_ns": ..., "slot": 12, "inst_id": "cu2603", "expected": 29, "received": 31
//   }
// }
nlohmann::json to_json(const FeedStatus& status, const FeedViewOptions& options);

// The members of vorn_md_counters_t by their names (cycles, restarts, frames, updates,
// silent_updates, stale, unsubscribed, options_skipped, restored_books, gaps, refused, overflows,
// abnormal_lengths, cached, replayed, cache_dropped, snapshot_frames, snapshot_overflows,
// snapshot_abnormal_lengths, snapshot_wipes), and as objects:
//   "time_in_phase_ns": {"stopped", "bring_up", "snapshot", "replay", "live"},
//   "snapshot_fate": {"started", "in_order", "held", "old", "unstarted", "foreign", "malformed",
//                     "empty", "checksum", "reset", "late", "dropped"},
//   "snapshot_rounds": {"shfe_2ps", "shfe_4ps", "ine_2ps", "ine_4ps"}
nlohmann::json to_json(const vorn_md_counters_t& counters);

// {"id": 7, "time_ns": ..., "kind": "gap", "phase": "live", ...} and by kind:
//   phase     "previous_phase"
//   gap       "slot", "inst_id", "expected", "received", "count"
//   restart   "count"
//   round     "feed": "shfe_2ps", "count"
//   overflow  "count"
//   opened    "generation"
//   dead, closed, revived
nlohmann::json to_json(const FeedEvent& event);

// {"slot": 12, "inst_id": "cu2603", "updates": 512, "updates_per_s": 102.4}
nlohmann::json to_json(const BusyInstrument& busy);

// One instrument, all of it:
// {
//   "slot": 12, "inst_id": "cu2603", "exchange": "SHFE" or "INE", "time_ns": ..., "change_no": 29,
//   "update_time": 33300,         as the exchange sent it, with
//   "update_milli_sec": 500,
//   "last_px", "volume", "turnover", "open_interest", "highest_price", "lowest_price",
//   "bid_totvol", "ask_totvol", "bid_totamount", "ask_totamount",
//   "bids": [{"price": 71230.0, "volume": 12}, ...],   best first, the levels that have a volume
//   "asks": [...]
// }
nlohmann::json to_json(const InstrumentState& state);

// A line of a list of instruments:
// {"slot", "inst_id", "exchange", "time_ns", "change_no", "last_px", "volume", "open_interest",
//  "bid_px", "bid_vol", "ask_px", "ask_vol", "updates"}    a side without a level: null
// "updates" are those in the window.
nlohmann::json to_json_row(const InstrumentState& state, uint64_t updates_in_window);

} // namespace vorn_cli
