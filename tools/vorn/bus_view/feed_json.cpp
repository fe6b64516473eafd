#include "tools/vorn/bus_view/feed_json.h"

#include <nlohmann/json.hpp>

#include <cmath>

namespace vorn_cli {

namespace {

using nlohmann::json;

json time_or_null(uint64_t time_ns) {
    return time_ns == 0 ? json() : json(time_ns);
}

json number(double value) {
    return std::isfinite(value) ? json(value) : json();
}

double seconds(uint64_t ns) {
    return static_cast<double>(ns) / 1e9;
}

// The slot rule says it for every record; the record's own member only after an update.
const char* exchange_of(uint32_t slot) {
    return slot < SHFE_MAX_INST_CNT ? "SHFE" : "INE";
}

json levels(const double (&prices)[10], const int32_t (&volumes)[10]) {
    json list = json::array();
    for (int i = 0; i < 10; ++i) {
        if (volumes[i] != 0) {
            list.push_back({{"price", number(prices[i])}, {"volume", volumes[i]}});
        }
    }
    return list;
}

json last_gap(const FeedStatus& status) {
    const vorn_md_gap_t& gap = status.counters.last_gap;
    if (gap.time_ns == 0) {
        return {};
    }
    return {{"time_ns", gap.time_ns + static_cast<uint64_t>(status.realtime_offset_ns)},
            {"slot", gap.slot},
            {"inst_id", instrument_text(gap.inst_id)},
            {"expected", gap.expected},
            {"received", gap.received}};
}

} // namespace

json to_json(const FeedStatus& status, const FeedViewOptions& options) {
    const bool there = status.state != FeedState::kAbsent;
    json object = {
        {"type", "status"},
        {"bus", status.bus},
        {"state", feed_state_name(status.state)},
        {"problem", there ? json() : json(status.problem)},
        {"time_ns", status.time_ns},
        {"phase", feed_phase_name(status.phase)},
        {"phase_since_ns", time_or_null(status.phase_since_ns)},
        {"last_update_ns", time_or_null(status.last_update_ns)},
        {"age_s", status.last_update_ns == 0 ? json() : json(seconds(status.age_ns))},
        {"updates_per_s", number(status.updates_per_s)},
        {"frames_per_s", number(status.frames_per_s)},
        {"window_s", seconds(options.window_ns)},
        {"writer", nullptr},
        {"ring", nullptr},
        {"counters", nullptr},
        {"last_gap", nullptr},
    };
    if (there) {
        object["writer"] = {{"pid", status.writer_pid},
                            {"generation", status.generation},
                            {"heartbeat_age_s", seconds(status.heartbeat_age_ns)}};
        object["ring"] = {{"records", status.ring_records},
                          {"head", status.ring_head},
                          {"lost", status.ring_lost},
                          {"laps", status.ring_laps}};
    }
    if (status.has_counters) {
        object["counters"] = to_json(status.counters);
        object["last_gap"] = last_gap(status);
    }
    return object;
}

json to_json(const vorn_md_counters_t& counters) {
    json object = {
        {"cycles", counters.cycles},
        {"restarts", counters.restarts},
        {"frames", counters.frames},
        {"updates", counters.updates},
        {"silent_updates", counters.silent_updates},
        {"stale", counters.stale},
        {"unsubscribed", counters.unsubscribed},
        {"options_skipped", counters.options_skipped},
        {"restored_books", counters.restored_books},
        {"gaps", counters.gaps},
        {"refused", counters.refused},
        {"overflows", counters.overflows},
        {"abnormal_lengths", counters.abnormal_lengths},
        {"cached", counters.cached},
        {"replayed", counters.replayed},
        {"cache_dropped", counters.cache_dropped},
        {"snapshot_frames", counters.snapshot_frames},
        {"snapshot_overflows", counters.snapshot_overflows},
        {"snapshot_abnormal_lengths", counters.snapshot_abnormal_lengths},
        {"snapshot_wipes", counters.snapshot_wipes},
    };
    for (uint32_t phase = 0; phase <= VORN_MD_PHASE_LIVE; ++phase) {
        object["time_in_phase_ns"][feed_phase_name(phase)] = counters.time_in_phase_ns[phase];
    }
    for (uint32_t fate = 0; fate < VORN_MD_FATE_CNT; ++fate) {
        object["snapshot_fate"][snapshot_fate_name(fate)] = counters.snapshot_fate[fate];
    }
    for (uint32_t feed = 0; feed < VORN_MD_FEED_CNT; ++feed) {
        object["snapshot_rounds"][feed_name(feed)] = counters.snapshot_rounds[feed];
    }
    return object;
}

json to_json(const FeedEvent& event) {
    json object = {{"id", event.id},
                   {"time_ns", event.time_ns},
                   {"kind", feed_event_name(event.kind)},
                   {"phase", feed_phase_name(event.phase)}};
    switch (event.kind) {
    case FeedEventKind::kPhase:
        object["previous_phase"] = feed_phase_name(event.previous_phase);
        break;
    case FeedEventKind::kGap:
        object["slot"] = event.slot;
        object["inst_id"] = event.inst_id;
        object["expected"] = event.expected;
        object["received"] = event.received;
        object["count"] = event.count;
        break;
    case FeedEventKind::kRound:
        object["feed"] = feed_name(event.feed);
        object["count"] = event.count;
        break;
    case FeedEventKind::kRestart:
    case FeedEventKind::kOverflow:
        object["count"] = event.count;
        break;
    case FeedEventKind::kOpened:
        object["generation"] = event.count;
        break;
    case FeedEventKind::kDead:
    case FeedEventKind::kClosed:
    case FeedEventKind::kRevived:
        break;
    }
    return object;
}

json to_json(const BusyInstrument& busy) {
    return {{"slot", busy.slot},
            {"inst_id", busy.inst_id},
            {"updates", busy.updates},
            {"updates_per_s", number(busy.updates_per_s)}};
}

json to_json(const InstrumentState& state) {
    const instrument& record = state.record;
    return {
        {"slot", state.slot},
        {"inst_id", instrument_text(record.inst_id)},
        {"exchange", exchange_of(state.slot)},
        {"time_ns", time_or_null(state.time_ns)},
        {"change_no", record.change_no},
        {"update_time", record.update_time},
        {"update_milli_sec", record.update_milli_sec},
        {"last_px", number(record.last_px)},
        {"volume", record.volume},
        {"turnover", number(record.turnover)},
        {"open_interest", number(record.open_interest)},
        {"highest_price", number(record.highest_price)},
        {"lowest_price", number(record.lowest_price)},
        {"bid_totvol", record.bid_totvol},
        {"ask_totvol", record.ask_totvol},
        {"bid_totamount", number(record.bid_totamount)},
        {"ask_totamount", number(record.ask_totamount)},
        {"bids", levels(record.bid_px, record.bid_vol)},
        {"asks", levels(record.ask_px, record.ask_vol)},
    };
}

json to_json_row(const InstrumentState& state, uint64_t updates_in_window) {
    const instrument& record = state.record;
    const bool bid = record.bid_vol[0] != 0;
    const bool ask = record.ask_vol[0] != 0;
    return {
        {"slot", state.slot},
        {"inst_id", instrument_text(record.inst_id)},
        {"exchange", exchange_of(state.slot)},
        {"time_ns", time_or_null(state.time_ns)},
        {"change_no", record.change_no},
        {"last_px", number(record.last_px)},
        {"volume", record.volume},
        {"open_interest", number(record.open_interest)},
        {"bid_px", bid ? number(record.bid_px[0]) : json()},
        {"bid_vol", bid ? json(record.bid_vol[0]) : json()},
        {"ask_px", ask ? number(record.ask_px[0]) : json()},
        {"ask_vol", ask ? json(record.ask_vol[0]) : json()},
        {"updates", updates_in_window},
    };
}

} // namespace vorn_cli
