// One whole cycle: bring-up, snapshot, replay, live loop, orderly stop.

#include "feed_fixture.h"
#include "wirekit/mirp.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <pthread.h>
#include <string>
#include <thread>
#include <vector>

namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using wirekit::decode_buffer;
using wirekit::Side;

// An instrument that nobody subscribed.
SnapshotInstrument copper() {
    SnapshotInstrument cu = rebar();
    cu.info.inst_id = "cu2601";
    cu.info.inst_no = cu.deal.inst_no = 4;
    return cu;
}

std::vector<Bytes> both_snapshots() {
    std::vector<Bytes> frames = snapshot_frames(kShfe, {rebar(), copper()});
    for (Bytes& frame : snapshot_frames(kIne, {crude()})) {
        frames.push_back(std::move(frame));
    }
    return frames;
}

// Frames that are cached, then as many empty polls as the replay has passes, then live frames.
Cycle whole_cycle() {
    Cycle cycle;
    cycle.snapshot = both_snapshots();
    cycle.cached = {shfe_stamp(6, 60), shfe_stamp(7, 70), shfe_stamp(8, 80), ine_stamp(42, 90)};
    cycle.after.resize(cycle.cached.size());
    cycle.after.push_back(decode_buffer()
                              .topic(1000)
                              .instrument(3)
                              .change_no(9)
                              .time(100, 1)
                              .packet_no(1009)
                              .insert(Side::kBid, 1, 10, 3)
                              .deal(11, 2, 20, -3)
                              .highest(51)
                              .bid_totals(3, 30)
                              .bytes());
    cycle.after.push_back(decode_buffer()
                              .topic(5000)
                              .instrument(0)
                              .change_no(43)
                              .time(101, 250)
                              .packet_no(5043)
                              .update(Side::kAsk, 1, 23, 9)
                              .lowest(17)
                              .ask_totals(-1, -5)
                              .bytes());
    cycle.after.push_back(
        decode_buffer().topic(1000).instrument(4).change_no(8).time(102).packet_no(1010).bytes());
    cycle.after.push_back(shfe_stamp(9, 103)); // the other line's copy
    cycle.after.push_back(decode_buffer()
                              .topic(1000)
                              .instrument(3)
                              .change_no(500)
                              .time(104)
                              .packet_no(1011)
                              .field_id(4)
                              .bytes());
    return cycle;
}

instrument rebar_after_live() {
    instrument record = rebar().record();
    record.update_time = 100;
    record.update_milli_sec = 1;
    record.change_no = 9;
    record.last_px = 3011.0;
    record.volume = 102;
    record.open_interest = 4997.0;
    record.turnover = 3.01e6 + (2.0 * 3000.0 + 20.0 * 1.0) * 10;
    record.highest_price = 3051.0;
    record.bid_totvol = 14;
    record.bid_totamount = 33093.0 + (3.0 * 3000.0 + 30.0 * 1.0) * 10;
    record.bid_px[0] = 3010.0;
    record.bid_vol[0] = 3;
    record.bid_px[1] = 3009.0;
    record.bid_vol[1] = 5;
    record.bid_px[2] = 3008.0;
    record.bid_vol[2] = 6;
    return record;
}

instrument crude_after_live() {
    instrument record = crude().record();
    record.type = 1;
    record.update_time = 101;
    record.update_milli_sec = 250;
    record.change_no = 43;
    record.lowest_price = 508.5;
    record.ask_px[0] = 511.5;
    record.ask_vol[0] = 9;
    record.ask_totvol = -1;
    record.ask_totamount = (-1.0 * 500.0 + -5.0 * 0.5) * 1000;
    return record;
}

TEST(FeedCycle, ReportsLiveUpdatesWithWholeRecords) {
    FeedFixture feed;
    feed.cycles = {whole_cycle()};
    EXPECT_EQ(feed.run(), 0);
    ASSERT_EQ(feed.updates.size(), 3U);
    EXPECT_EQ(feed.updates[0].slot, 3U);
    expect_record(feed.updates[0].record, rebar_after_live());
    EXPECT_EQ(feed.updates[1].slot, 20479U);
    expect_record(feed.updates[1].record, crude_after_live());
    // A header that is no incremental message is reported with the record as it stands.
    EXPECT_EQ(feed.updates[2].slot, 3U);
    expect_record(feed.updates[2].record, rebar_after_live());
    for (const Update& update : feed.updates) {
        EXPECT_EQ(update.thread, std::this_thread::get_id());
    }
}

TEST(FeedCycle, LogsEachStep) {
    FeedFixture feed;
    feed.cycles = {whole_cycle()};
    EXPECT_EQ(feed.run(), 0);
    EXPECT_THAT(feed.log, ElementsAreArray(joined(
                              Lines{kVersionLine},
                              feed.cycle_log("0x5", {"shfe2ps init finished, total instruments:5",
                                                     "ine2ps init finished, total instruments:1"}),
                              Lines{"I ExanicMdImpl vorn_recv process decode buffer 4 frames"})));
}

TEST(FeedCycle, StoresEveryRegisterInOrder) {
    FeedFixture feed;
    feed.cycles = {whole_cycle()};
    EXPECT_EQ(feed.run(), 0);
    const Stores opened = {{513, 1}, {512, 1}, {514, 1}, {515, 1}};
    const Stores subscribed = {{1792, 3}, {1793, 1}, {1796, 0}, {1797, 1}};
    const Stores narrowed = {{514, 0}, {515, 0}, {512, 0}};
    const Stores times = {{12, 60},  {12, 70},  {12, 80},  {12, 90},
                          {12, 100}, {12, 101}, {12, 103}, {12, 104}};
    const Stores closed = {{513, 0}};
    support::expect_stores(feed.card.stores(),
                           joined(support::bring_up_stores(joined(kShfeLines, kIneLines), 1),
                                  opened, subscribed, narrowed, times, closed));
    EXPECT_EQ(feed.card.unusual_stores(), 0U);
}

TEST(FeedCycle, AcquiresOnceAndReleasesInReverseOrder) {
    FeedFixture feed;
    feed.cycles = {whole_cycle()};
    EXPECT_EQ(feed.run(), 0);
    EXPECT_THAT(feed.card.calls(),
                ElementsAre("acquire_handle exanic0", "acquire_rx 1 0", "acquire_rx 0 0",
                            "release_rx 0", "release_rx 1", "release_handle"));
}

TEST(FeedCycle, TouchesOnlyTheSubscribedSlots) {
    FeedFixture feed;
    feed.cycles = {whole_cycle()};
    bool checked = false;
    feed.at_update = [&](instrument* record) {
        if (record->inst_id[0] != 's') {
            return;
        }
        checked = true;
        const share& table = *feed.table();
        expect_record(table.instmts[3], rebar_after_live());
        expect_record(table.instmts[20479], crude_after_live());
        const instrument empty{};
        for (uint32_t slot = 0; slot < 20480; ++slot) {
            if (slot != 3 && slot != 20479) {
                ASSERT_EQ(std::memcmp(&table.instmts[slot], &empty, sizeof empty), 0) << slot;
            }
        }
        EXPECT_EQ(table.shfe_inst_cnt, 5);
        EXPECT_EQ(table.ine_inst_cnt, 1);
        EXPECT_EQ(table.shfe_pktno, 1009);
        EXPECT_EQ(table.ine_pktno, 5043);
    };
    EXPECT_EQ(feed.run(), 0);
    EXPECT_TRUE(checked);
}

TEST(FeedCycle, OpensTheDataPathsBeforeTheFirstPoll) {
    FeedFixture feed;
    feed.cycles = {whole_cycle()};
    std::vector<uint32_t> at_first_poll;
    std::vector<uint32_t> after_the_snapshot;
    feed.at_poll = [&](std::size_t, bool loading, uint64_t poll) {
        if (poll == 1) {
            std::vector<uint32_t>& switches = loading ? at_first_poll : after_the_snapshot;
            switches = {feed.card.reg(512), feed.card.reg(513), feed.card.reg(514),
                        feed.card.reg(515)};
        }
    };
    EXPECT_EQ(feed.run(), 0);
    EXPECT_THAT(at_first_poll, ElementsAre(1U, 1U, 1U, 1U));
    EXPECT_THAT(after_the_snapshot, ElementsAre(0U, 1U, 0U, 0U));
    EXPECT_EQ(feed.card.reg(513), 0U) << "and closes the last one at the end";
}

TEST(FeedCycle, TakesTheSnapshotOnAThreadBoundToTheSameCpu) {
    FeedFixture feed;
    feed.cycles = {whole_cycle()};
    std::thread::id raw_thread;
    int cpus = 0;
    bool own = false;
    feed.at_raw_poll = [&](uint64_t) {
        raw_thread = std::this_thread::get_id();
        cpu_set_t set;
        ::sched_getaffinity(0, sizeof set, &set);
        cpus = CPU_COUNT(&set);
        own = CPU_ISSET(feed.cpu(), &set);
    };
    EXPECT_EQ(feed.run(), 0);
    EXPECT_NE(raw_thread, std::thread::id());
    EXPECT_NE(raw_thread, std::this_thread::get_id());
    EXPECT_EQ(cpus, 1);
    EXPECT_TRUE(own);
}

TEST(FeedCycle, EndsTheRawPollingWithTheSnapshot) {
    FeedFixture feed;
    feed.cycles = {whole_cycle()};
    uint64_t at_end_of_snapshot = 0;
    feed.at_poll = [&](std::size_t, bool loading, uint64_t poll) {
        if (!loading && poll == 1) {
            at_end_of_snapshot = feed.card.polls(1);
        }
    };
    EXPECT_EQ(feed.run(), 0);
    EXPECT_EQ(feed.card.polls(1), at_end_of_snapshot) << "the decoder thread has been joined";
}

TEST(FeedCycle, NeverGivesTheProcessorAwayInTheLiveLoop) {
    FeedFixture feed;
    feed.cycles = {whole_cycle()};
    feed.cycles[0].after.resize(feed.cycles[0].after.size() + 2000);
    feed.at_poll = [&](std::size_t, bool loading, uint64_t poll) {
        if (!loading && poll == 6) {
            system_calls::yields_of_this_thread() = 0;
        }
    };
    EXPECT_EQ(feed.run(), 0);
    EXPECT_EQ(system_calls::yields_of_this_thread(), 0U);
    EXPECT_EQ(feed.updates.size(), 3U);
}

TEST(FeedCycle, WithOneExchangeWaitsForItAlone) {
    FeedFixture feed;
    feed.config = shfe_config(feed.cpu());
    feed.cycles = {{{}, snapshot_frames(kShfe, {rebar()}), {shfe_stamp(8, 80)}}};
    EXPECT_EQ(feed.run(), 0);
    EXPECT_THAT(feed.log, ElementsAreArray(joined(
                              Lines{kVersionLine},
                              feed.cycle_log("0x1", {"shfe2ps init finished, total instruments:4"}),
                              Lines{"I ExanicMdImpl vorn_recv process decode buffer 0 frames"})));
    ASSERT_EQ(feed.updates.size(), 1U);
    instrument expected = rebar().record();
    expected.change_no = 8;
    expected.update_time = 80;
    expected.update_milli_sec = 0;
    expect_record(feed.updates[0].record, expected);
    const Stores rest = {{513, 1}, {512, 1}, {514, 1}, {515, 1}, {1792, 3}, {1793, 1},
                         {514, 0}, {515, 0}, {512, 0}, {12, 80}, {513, 0}};
    support::expect_stores(feed.card.stores(),
                           joined(support::bring_up_stores(kShfeLines, 1), rest));
}

TEST(FeedCycle, ReportsNothingWhileNothingIsUpdated) {
    FeedFixture feed;
    feed.cycles = {{{}, both_snapshots(), {shfe_stamp(7), {}, ine_stamp(41), {}}}};
    EXPECT_EQ(feed.run(), 0);
    EXPECT_THAT(feed.updates, IsEmpty());
}

// --- The slot rule, at the ends of both number ranges.

TEST(FeedSlots, FillTheTableFromBothEndsWithoutOverlap) {
    struct Row {
        const FeedLine& feed;
        int32_t number;
        const char* inst_id;
        uint32_t slot;
    };
    const std::vector<Row> rows = {{kShfe, 0, "aa2601", 0},
                                   {kShfe, 16383, "bb2601", 16383},
                                   {kIne, 4095, "cc2601", 16384},
                                   {kIne, 0, "dd2601", 20479}};
    FeedFixture feed;
    feed.config = config_text(feed.cpu(), "insts = all\n");
    std::vector<SnapshotInstrument> shfe;
    std::vector<SnapshotInstrument> ine;
    Cycle cycle;
    for (const Row& row : rows) {
        SnapshotInstrument instrument = rebar();
        instrument.info.inst_id = row.inst_id;
        instrument.info.inst_no = instrument.deal.inst_no = row.number;
        (row.feed.is_ine ? ine : shfe).push_back(instrument);
        cycle.after.push_back(decode_buffer()
                                  .topic(static_cast<uint16_t>(row.feed.topic))
                                  .instrument(static_cast<uint32_t>(row.number))
                                  .change_no(8)
                                  .bytes());
    }
    cycle.snapshot = joined(snapshot_frames(kShfe, shfe), snapshot_frames(kIne, ine));
    feed.cycles = {cycle};
    EXPECT_EQ(feed.run(), 0);
    EXPECT_THAT(feed.log_at("EW"), IsEmpty()) << "full ranges are within the limits";
    ASSERT_EQ(feed.updates.size(), rows.size());
    for (std::size_t i = 0; i < rows.size(); ++i) {
        EXPECT_EQ(feed.updates[i].slot, rows[i].slot);
        EXPECT_STREQ(reinterpret_cast<const char*>(feed.updates[i].record.inst_id),
                     rows[i].inst_id);
        EXPECT_EQ(feed.updates[i].record.type, rows[i].feed.is_ine ? 1 : 0);
    }
}

// --- The run flag drops.

TEST(FeedStop, WhileTheSnapshotIsLoadedWindsTheCycleDown) {
    FeedFixture feed;
    feed.cycles = {{{shfe_stamp(8), shfe_stamp(9)}, {}, {}}};
    feed.at_poll = [&](std::size_t, bool loading, uint64_t) {
        EXPECT_TRUE(loading) << "neither the replay nor the live loop polls";
        if (feed.card.left(0) == 0 && feed.card.polls(0) > 4 && feed.card.polls(1) > 4) {
            feed.stop();
        }
    };
    EXPECT_EQ(feed.run(), 0);
    EXPECT_THAT(feed.updates, IsEmpty());
    Lines expected = joined(Lines{kVersionLine}, feed.cycle_log("0x5", {}));
    expected.back() = "I ExanicMdImpl vorn_recv process decode buffer 2 frames";
    EXPECT_THAT(feed.log, ElementsAreArray(expected)) << "the snapshot is left undecided";
    const Stores rest = {{513, 1}, {512, 1}, {514, 1}, {515, 1},
                         {514, 0}, {515, 0}, {512, 0}, {513, 0}};
    support::expect_stores(
        feed.card.stores(),
        joined(support::bring_up_stores(joined(kShfeLines, kIneLines), 1), rest));
    EXPECT_EQ(feed.card.calls().back(), "release_handle");
}

TEST(FeedStop, InTheReplayEndsItAfterTheEntryAtHand) {
    FeedFixture feed;
    feed.cycles = {whole_cycle()};
    feed.at_poll = [&](std::size_t, bool loading, uint64_t poll) {
        if (!loading && poll == 3) {
            feed.stop();
        }
    };
    EXPECT_EQ(feed.run(), 0);
    EXPECT_THAT(feed.updates, IsEmpty());
    EXPECT_EQ(feed.phases.back(), (FeedFixture::Phase{0, false, 3}));
    EXPECT_EQ(feed.card.reg(12), 80U) << "the third cached buffer is the last one decoded";
    EXPECT_EQ(feed.card.reg(513), 0U);
    EXPECT_EQ(feed.card.calls().back(), "release_handle");
}

TEST(FeedStop, InTheLiveLoopEndsItAfterTheBufferAtHand) {
    FeedFixture feed;
    feed.cycles = {whole_cycle()};
    feed.at_poll = [&](std::size_t, bool loading, uint64_t poll) {
        if (!loading && poll == 5) {
            feed.stop(); // before the first live buffer is answered
        }
    };
    EXPECT_EQ(feed.run(), 0);
    ASSERT_EQ(feed.updates.size(), 1U);
    expect_record(feed.updates[0].record, rebar_after_live());
    EXPECT_EQ(feed.phases.back(), (FeedFixture::Phase{0, false, 5}));
    EXPECT_EQ(feed.card.reg(513), 0U);
}

TEST(FeedStop, FromTheCallbackEndsTheFeed) {
    FeedFixture feed;
    feed.cycles = {whole_cycle()};
    feed.at_update = [&](instrument*) { feed.stop(); };
    EXPECT_EQ(feed.run(), 0);
    EXPECT_EQ(feed.updates.size(), 1U);
    EXPECT_EQ(feed.phases.back(), (FeedFixture::Phase{0, false, 5}));
}

// Address space in bytes.
std::size_t address_space() {
    std::ifstream statm("/proc/self/statm");
    std::size_t pages = 0;
    statm >> pages;
    return pages * 4096;
}

TEST(FeedStop, GivesTheBuffersBack) {
    const auto run_once = [] {
        FeedFixture feed;
        feed.keep_running = 0;
        ASSERT_EQ(feed.run(), 0);
    };
    run_once();
    run_once();
    const std::size_t before = address_space();
    constexpr std::size_t kRuns = 12;
    for (std::size_t i = 0; i < kRuns; ++i) {
        run_once();
    }
    // Less than half of what the smaller buffer alone would leave behind.
    EXPECT_LT(address_space(), before + kRuns * sizeof(share) / 2);
}

TEST(FeedStop, FromAnotherThreadEndsTheFeed) {
    FeedFixture feed;
    feed.cycles = {whole_cycle()};
    feed.endless = true;
    std::thread stopper;
    feed.at_update = [&](instrument*) {
        if (!stopper.joinable()) {
            stopper = std::thread([&] { feed.stop(); });
        }
    };
    EXPECT_EQ(feed.run(), 0);
    stopper.join();
    EXPECT_EQ(feed.card.calls().back(), "release_handle");
}

} // namespace
