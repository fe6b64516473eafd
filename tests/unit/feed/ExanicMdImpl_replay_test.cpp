// The replay of what was cached: which updates stay silent, and what a gap in it does.

#include "feed_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

Buffers stamps(uint32_t from, uint32_t to) {
    Buffers buffers;
    for (uint32_t change_no = from; change_no <= to; ++change_no) {
        buffers.push_back(shfe_stamp(change_no, change_no));
    }
    return buffers;
}

std::vector<uint32_t> change_numbers(const std::vector<Update>& updates) {
    std::vector<uint32_t> numbers;
    for (const Update& update : updates) {
        numbers.push_back(update.record.change_no);
    }
    return numbers;
}

// The snapshot of rebar() stands at change number 7.
FeedFixture& run_one(FeedFixture& feed, const Buffers& cached, const Buffers& after) {
    feed.config = shfe_config(feed.cpu());
    feed.cycles = {{cached, snapshot_frames(kShfe, {rebar()}), after}};
    EXPECT_EQ(feed.run(), 0);
    return feed;
}

std::string replay_line(int frames) {
    return "I ExanicMdImpl vorn_recv process decode buffer " + std::to_string(frames) + " frames";
}

TEST(FeedReplay, IsSilentForAsManyUpdatesAsFramesWereCached) {
    FeedFixture feed;
    // The buffers after the snapshot arrive one a poll, while the backlog is replayed.
    run_one(feed, stamps(8, 17), stamps(18, 20));
    EXPECT_EQ(feed.log.back(), replay_line(10));
    EXPECT_THAT(change_numbers(feed.updates), ElementsAre(18U, 19U, 20U));
    EXPECT_EQ(feed.phases.back().polls, 14U);
}

TEST(FeedReplay, ReportsTheEleventhUpdateWithItsWholeRecord) {
    FeedFixture feed;
    run_one(feed, stamps(8, 17), stamps(18, 18));
    ASSERT_EQ(feed.updates.size(), 1U);
    instrument expected = rebar().record();
    expected.change_no = 18;
    expected.update_time = 18;
    expected.update_milli_sec = 0;
    EXPECT_EQ(feed.updates[0].slot, 3U);
    expect_record(feed.updates[0].record, expected);
}

TEST(FeedReplay, ComparesUpdatesWithFramesSoStaleFramesSilenceLaterUpdates) {
    FeedFixture feed;
    // Ten frames, four of them stale: six updates. The next four updates stay silent too.
    run_one(feed, stamps(4, 13), stamps(14, 20));
    EXPECT_EQ(feed.log.back(), replay_line(10));
    EXPECT_THAT(change_numbers(feed.updates), ElementsAre(18U, 19U, 20U));
}

TEST(FeedReplay, DoesNotCarryItsSilenceIntoTheLiveLoop) {
    FeedFixture feed;
    // The backlog is used up by empty polls; the updates come live.
    run_one(feed, stamps(4, 13), joined(Buffers(10), stamps(14, 16)));
    EXPECT_THAT(change_numbers(feed.updates), ElementsAre(14U, 15U, 16U));
}

TEST(FeedReplay, OfNothingGoesStraightToTheLiveLoop) {
    FeedFixture feed;
    run_one(feed, {}, stamps(8, 9));
    EXPECT_EQ(feed.log.back(), replay_line(0));
    EXPECT_THAT(change_numbers(feed.updates), ElementsAre(8U, 9U));
}

TEST(FeedReplay, OfOneFrameSilencesOneUpdate) {
    FeedFixture feed;
    run_one(feed, stamps(8, 8), stamps(9, 10));
    EXPECT_THAT(change_numbers(feed.updates), ElementsAre(9U, 10U));
}

TEST(FeedReplay, CountsUpdatesOfAllInstrumentsTogether) {
    FeedFixture feed;
    Buffers snapshot = snapshot_frames(kShfe, {rebar()});
    for (Bytes& frame : snapshot_frames(kIne, {crude()})) {
        snapshot.push_back(std::move(frame));
    }
    feed.cycles = {
        {{shfe_stamp(8), ine_stamp(42), ine_stamp(43)}, snapshot, {ine_stamp(44), shfe_stamp(9)}}};
    EXPECT_EQ(feed.run(), 0);
    ASSERT_EQ(feed.updates.size(), 2U);
    EXPECT_EQ(feed.updates[0].slot, 20479U);
    EXPECT_EQ(feed.updates[0].record.change_no, 44U);
    EXPECT_EQ(feed.updates[1].slot, 3U);
    EXPECT_EQ(feed.updates[1].record.change_no, 9U);
}

TEST(FeedReplay, KeepsTheOrderOfArrivalAcrossTheEndOfTheSnapshot) {
    FeedFixture feed;
    // Would be a gap if any later buffer overtook an earlier one.
    run_one(feed, stamps(8, 40), stamps(41, 120));
    EXPECT_EQ(feed.updates.size(), 80U);
    EXPECT_EQ(feed.updates.back().record.change_no, 120U);
    EXPECT_THAT(feed.log_at("EW"), IsEmpty());
}

TEST(FeedReplay, SkipsWhatTheCardCouldNotDeliver) {
    FeedFixture feed;
    feed.config = shfe_config(feed.cpu(), "log_level = 15\n");
    feed.cycles = {{{}, snapshot_frames(kShfe, {rebar()}), stamps(8, 9)}};
    feed.at_poll = [&](std::size_t, bool loading, uint64_t poll) {
        if (loading && poll == 1) {
            feed.card.push(0, Bytes(23, 0)); // too short for a decode buffer
            feed.card.push_result(0, -256);
        }
    };
    EXPECT_EQ(feed.run(), 0);
    EXPECT_EQ(feed.log.back(), replay_line(0));
    EXPECT_THAT(change_numbers(feed.updates), ElementsAre(8U, 9U));
    EXPECT_THAT(feed.log, testing::Contains("D ExanicUdpFunc CachePacket receive abnormal decode "
                                            "length: 23"));
    EXPECT_THAT(feed.log, testing::Contains("D ExanicUdpFunc CachePacket receive abnormal decode "
                                            "length: 4294967040"));
}

// --- A gap in the replay.

// First cycle: 8 and, behind a gap, 10; second cycle: a plain one.
std::vector<Cycle> gap_then_plain() {
    SnapshotInstrument second = rebar();
    second.deal = {.inst_no = 3, .change_no = 100};
    second.bids.clear();
    second.asks.clear();
    second.bid_totvol = second.ask_totvol = 0;
    second.bid_totamount = second.ask_totamount = 0.0;
    return {{{shfe_stamp(8), shfe_stamp(10), shfe_stamp(11)},
             snapshot_frames(kShfe, {rebar()}),
             stamps(12, 13)},
            {{}, snapshot_frames(kShfe, {second}, 1), {{}, {}, shfe_stamp(101, 55)}}};
}

TEST(FeedReplayGap, ClearsTheCacheSkipsTheLiveLoopAndStartsOver) {
    FeedFixture feed;
    feed.config = shfe_config(feed.cpu());
    feed.cycles = gap_then_plain();
    EXPECT_EQ(feed.run(), 0);
    const Lines cycle = feed.cycle_log("0x1", {"shfe2ps init finished, total instruments:4"});
    const Lines gap = {
        replay_line(3),
        "E ExanicUdpFunc _ParseMirp discontinuous changeNo: 10, expected changeNo: 9, "
        "instrumentID: rb2601, instrumentNo: 3, instrumentNo: 3",
        "I ExanicUdpFunc ClearCache decode buffer cleared"};
    EXPECT_EQ(feed.log, joined(Lines{kVersionLine}, cycle, gap, cycle, Lines{replay_line(0)}));
    ASSERT_GE(feed.phases.size(), 4U);
    EXPECT_EQ(feed.phases[1], (FeedFixture::Phase{0, false, 2}))
        << "two passes of the replay and not one poll of the live loop";
    EXPECT_EQ(feed.phases[3].cycle, 1U);
}

TEST(FeedReplayGap, LosesWhatWasTakenInThatPass) {
    FeedFixture feed;
    feed.config = shfe_config(feed.cpu());
    feed.cycles = gap_then_plain();
    // 12 and 13 were taken in the two passes of the first replay; only 101 is ever reported.
    EXPECT_EQ(feed.run(), 0);
    EXPECT_THAT(change_numbers(feed.updates), ElementsAre(101U));
}

TEST(FeedReplayGap, StartsOverFromAZeroedTable) {
    FeedFixture feed;
    feed.config = shfe_config(feed.cpu());
    feed.cycles = gap_then_plain();
    int bring_ups = 0;
    bool zero = false;
    // The pause after the reset pulse lies between the zeroing and the start of any other thread.
    system_calls::on_sleep([&](useconds_t) {
        if (++bring_ups == 2) {
            static const share kEmpty{};
            zero = std::memcmp(feed.table(), &kEmpty, sizeof kEmpty) == 0;
        }
    });
    EXPECT_EQ(feed.run(), 0);
    EXPECT_EQ(bring_ups, 2);
    EXPECT_TRUE(zero);
    ASSERT_EQ(feed.updates.size(), 1U);
    instrument expected{};
    std::memcpy(expected.inst_id, "rb2601", 6);
    expected.change_no = 101;
    expected.update_time = 55;
    expect_record(feed.updates[0].record, expected);
}

TEST(FeedReplayGap, SwitchesTheDecodePathOffAndEverythingOnAgain) {
    FeedFixture feed;
    feed.config = shfe_config(feed.cpu());
    feed.cycles = gap_then_plain();
    EXPECT_EQ(feed.run(), 0);
    const Stores up = support::bring_up_stores(kShfeLines, 1);
    const Stores loaded = {{513, 1},  {512, 1}, {514, 1}, {515, 1}, {1792, 3},
                           {1793, 1}, {514, 0}, {515, 0}, {512, 0}};
    const Stores replayed = {{12, 0}, {12, 0}, {513, 0}};
    const Stores live = {{12, 55}, {513, 0}};
    support::expect_stores(feed.card.stores(), joined(up, loaded, replayed, up, loaded, live));
}

} // namespace
