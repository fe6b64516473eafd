// The JSON form of a feed: names, units and what is null.

#include "bus_support.h"
#include "tools/vorn/bus_view/feed_json.h"
#include "tools/vorn/data_out.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <limits>

using bus_support::counters_of;
using bus_support::record_of;
using nlohmann::json;
using vorn_cli::FeedEvent;
using vorn_cli::FeedEventKind;
using vorn_cli::FeedView;
using vorn_cli::to_json;

namespace {

TEST(FeedJson, OfAnAbsentBusSaysWhyAndHasNoNumbers) {
    bus_support::TestBus bus;
    FeedView view({.bus = bus.name()});
    view.poll();
    const json object = to_json(view.status(), view.options());
    EXPECT_EQ(object["type"], "status");
    EXPECT_EQ(object["state"], "absent");
    EXPECT_EQ(object["bus"], bus.name());
    EXPECT_NE(object["problem"].get<std::string>().find("vorn publish"), std::string::npos);
    for (const char* name :
         {"writer", "ring", "counters", "last_gap", "age_s", "last_update_ns", "phase_since_ns"}) {
        EXPECT_TRUE(object.at(name).is_null()) << name;
    }
}

TEST(FeedJson, OfALiveFeed) {
    bus_support::TestBus bus;
    bus.open();
    const uint64_t now = vorn_bus::clock_ns(CLOCK_MONOTONIC);
    auto counters = counters_of(VORN_MD_PHASE_LIVE, now, now);
    counters.frames = 12;
    counters.gaps = 1;
    counters.snapshot_fate[VORN_MD_FATE_CHECKSUM] = 3;
    counters.snapshot_rounds[VORN_MD_FEED_SHFE_4PS] = 2;
    counters.time_in_phase_ns[VORN_MD_PHASE_SNAPSHOT] = 77;
    counters.last_gap.time_ns = now;
    counters.last_gap.slot = 4;
    counters.last_gap.expected = 29;
    counters.last_gap.received = 31;
    std::memcpy(counters.last_gap.inst_id, "cu2603", 7);
    bus.writer().beat(counters);
    FeedView view({
        .bus = bus.name(),
    });
    view.poll(nullptr, now);
    const json object = to_json(view.status(), view.options());
    EXPECT_EQ(object["state"], "live");
    EXPECT_TRUE(object["problem"].is_null());
    EXPECT_EQ(object["phase"], "live");
    EXPECT_EQ(object["window_s"], 5.0);
    EXPECT_GE(object["age_s"].get<double>(), 0);
    EXPECT_EQ(object["writer"]["generation"], 1);
    EXPECT_EQ(object["ring"]["records"], 1024);
    EXPECT_EQ(object["ring"]["lost"], 0);
    EXPECT_EQ(object["counters"]["frames"], 12);
    EXPECT_EQ(object["counters"]["snapshot_fate"]["checksum"], 3);
    EXPECT_EQ(object["counters"]["snapshot_fate"].size(), 12u);
    EXPECT_EQ(object["counters"]["snapshot_rounds"]["shfe_4ps"], 2);
    EXPECT_EQ(object["counters"]["time_in_phase_ns"]["snapshot"], 77);
    EXPECT_EQ(object["counters"]["time_in_phase_ns"].size(), 5u);
    EXPECT_EQ(object["last_gap"]["inst_id"], "cu2603");
    EXPECT_EQ(object["last_gap"]["expected"], 29);
    EXPECT_EQ(object["last_gap"]["received"], 31);
    EXPECT_GT(object["last_gap"]["time_ns"].get<uint64_t>(), 1'500'000'000'000'000'000u)
        << "since the epoch";
}

// A counter that is forgotten in the JSON would be seen by nobody.
TEST(FeedJson, HasEveryCounter) {
    vorn_md_counters_t counters;
    std::memset(&counters, 0, sizeof(counters));
    uint64_t* const first = &counters.cycles;
    uint64_t* const end = reinterpret_cast<uint64_t*>(&counters.last_gap);
    uint64_t sum = 0;
    for (uint64_t* word = first; word < end; ++word) {
        *word = static_cast<uint64_t>(word - first + 1);
        sum += *word;
    }
    uint64_t told = 0;
    const json object = to_json(counters);
    for (const auto& [name, value] : object.items()) {
        if (name == "time_in_phase_ns") {
            continue;
        }
        const json numbers = value.is_object() ? value : json::array({value});
        for (const json& number : numbers) {
            told += number.get<uint64_t>();
        }
    }
    EXPECT_EQ(told, sum);
}

TEST(FeedJson, OfEventsByKind) {
    FeedEvent event;
    event.id = 7;
    event.time_ns = 5;
    event.phase = VORN_MD_PHASE_LIVE;
    event.previous_phase = VORN_MD_PHASE_REPLAY;
    event.count = 2;
    event.slot = 4;
    event.expected = 29;
    event.received = 31;
    event.feed = VORN_MD_FEED_INE_2PS;
    event.inst_id = "cu2603";
    const std::pair<FeedEventKind, json> cases[] = {
        {FeedEventKind::kPhase, {{"kind", "phase"}, {"previous_phase", "replay"}}},
        {FeedEventKind::kGap,
         {{"kind", "gap"},
          {"slot", 4},
          {"inst_id", "cu2603"},
          {"expected", 29},
          {"received", 31},
          {"count", 2}}},
        {FeedEventKind::kRestart, {{"kind", "restart"}, {"count", 2}}},
        {FeedEventKind::kRound, {{"kind", "round"}, {"feed", "ine_2ps"}, {"count", 2}}},
        {FeedEventKind::kOverflow, {{"kind", "overflow"}, {"count", 2}}},
        {FeedEventKind::kOpened, {{"kind", "opened"}, {"generation", 2}}},
        {FeedEventKind::kDead, {{"kind", "dead"}}},
        {FeedEventKind::kClosed, {{"kind", "closed"}}},
        {FeedEventKind::kRevived, {{"kind", "revived"}}},
    };
    for (const auto& [kind, members] : cases) {
        event.kind = kind;
        json expected = {{"id", 7}, {"time_ns", 5}, {"phase", "live"}};
        expected.update(members);
        EXPECT_EQ(to_json(event), expected);
    }
}

TEST(FeedJson, OfAnInstrument) {
    vorn_cli::InstrumentState state{20000, 2, 99, record_of("sc2601", 7)};
    const json object = to_json(state);
    EXPECT_EQ(object["inst_id"], "sc2601");
    EXPECT_EQ(object["exchange"], "INE") << "by the slot";
    EXPECT_EQ(object["change_no"], 7);
    EXPECT_EQ(object["last_px"], 100.5);
    ASSERT_EQ(object["bids"].size(), 5u) << "levels without a volume are none";
    EXPECT_EQ(object["bids"][0], json({{"price", 100.0}, {"volume", 5}}));
    EXPECT_EQ(object["asks"][4], json({{"price", 105.0}, {"volume", 11}}));

    const json row = vorn_cli::to_json_row(state, 12);
    EXPECT_EQ(row["bid_px"], 100.0);
    EXPECT_EQ(row["ask_vol"], 7);
    EXPECT_EQ(row["updates"], 12);
}

TEST(FeedJson, OfARecordWithoutBookAndWithNumbersThatAreNone) {
    vorn_cli::InstrumentState state{4, 2, 0, {}};
    state.record.last_px = std::numeric_limits<double>::quiet_NaN();
    state.record.turnover = std::numeric_limits<double>::infinity();
    state.record.inst_id[0] = 0xff;
    const json object = to_json(state);
    EXPECT_EQ(object["exchange"], "SHFE");
    EXPECT_TRUE(object["last_px"].is_null());
    EXPECT_TRUE(object["turnover"].is_null());
    EXPECT_TRUE(object["time_ns"].is_null());
    EXPECT_EQ(object["inst_id"], "?");
    EXPECT_TRUE(object["bids"].is_array());
    EXPECT_TRUE(object["bids"].empty());
    const json row = vorn_cli::to_json_row(state, 0);
    EXPECT_TRUE(row["bid_px"].is_null());
    EXPECT_TRUE(row["ask_vol"].is_null());
    EXPECT_NO_THROW(vorn_cli::json_line(object));
}

} // namespace
