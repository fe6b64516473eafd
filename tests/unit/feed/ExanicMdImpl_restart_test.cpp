// Restarts after a gap in the live stream, and the reports between the snapshot and the replay.

#include "CommonLog.h"
#include "feed_fixture.h"
#include "wirekit/mirp.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <sched.h>
#include <string>
#include <vector>

namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

std::string replay_line(int frames) {
    return "I ExanicMdImpl vorn_recv process decode buffer " + std::to_string(frames) + " frames";
}

constexpr char kGapLine[] = "E ExanicUdpFunc _ParseMirp discontinuous changeNo: 10, expected "
                            "changeNo: 9, instrumentID: rb2601, instrumentNo: 3, instrumentNo: 3";
constexpr char kFinished[] = "shfe2ps init finished, total instruments:4";

// A cycle that reports change 8 live and then meets a gap.
Cycle gap_cycle(uint32_t round) {
    return {{}, snapshot_frames(kShfe, {rebar()}, round), {shfe_stamp(8, 80), shfe_stamp(10)}};
}

Cycle plain_cycle(uint32_t round, Buffers after = {shfe_stamp(8, 81)}) {
    return {{}, snapshot_frames(kShfe, {rebar()}, round), std::move(after)};
}

TEST(FeedRestart, FollowsAGapInTheLiveStream) {
    FeedFixture feed;
    feed.config = shfe_config(feed.cpu());
    feed.cycles = {gap_cycle(0), gap_cycle(1), plain_cycle(2)};
    EXPECT_EQ(feed.run(), 0);
    const Lines cycle = joined(feed.cycle_log("0x1", {kFinished}), Lines{replay_line(0)});
    const Lines gap = {kGapLine};
    EXPECT_EQ(feed.log, joined(Lines{kVersionLine}, cycle, gap, cycle, gap, cycle));
    ASSERT_EQ(feed.updates.size(), 3U);
    EXPECT_EQ(feed.updates[2].record.update_time, 81U);
    EXPECT_EQ(feed.updates[2].record.change_no, 8U);
}

TEST(FeedRestart, AcquiresAgainAndReleasesOnce) {
    FeedFixture feed;
    feed.config = shfe_config(feed.cpu());
    feed.cycles = {gap_cycle(0), plain_cycle(1)};
    EXPECT_EQ(feed.run(), 0);
    EXPECT_THAT(feed.card.calls(),
                ElementsAre("acquire_handle exanic0", "acquire_rx 1 0", "acquire_rx 0 0",
                            "acquire_handle exanic0", "acquire_rx 1 0", "acquire_rx 0 0",
                            "release_rx 0", "release_rx 1", "release_handle"));
    EXPECT_EQ(system_calls::allocation_of(sizeof(share)).requests, 1)
        << "the table is reused across restarts";
}

TEST(FeedRestart, SwitchesInTheOrderOfAFreshStart) {
    FeedFixture feed;
    feed.config = shfe_config(feed.cpu());
    feed.cycles = {gap_cycle(0), plain_cycle(1)};
    EXPECT_EQ(feed.run(), 0);
    const Stores up = support::bring_up_stores(kShfeLines, 1);
    const Stores loaded = {{513, 1},  {512, 1}, {514, 1}, {515, 1}, {1792, 3},
                           {1793, 1}, {514, 0}, {515, 0}, {512, 0}};
    const Stores first = {{12, 80}, {12, 0}, {513, 0}};
    const Stores second = {{12, 81}, {513, 0}};
    support::expect_stores(feed.card.stores(), joined(up, loaded, first, up, loaded, second));
}

TEST(FeedRestart, ReadsTheConfigurationAgain) {
    FeedFixture feed;
    feed.config = shfe_config(feed.cpu());
    feed.cycles = {gap_cycle(0), {{}, snapshot_frames(kIne, {crude()}), {ine_stamp(42, 90)}}};
    feed.at_poll = [&](std::size_t cycle, bool loading, uint64_t poll) {
        if (cycle == 0 && !loading && poll == 1) {
            (void)feed.dir.write("feed.ini", config_text(feed.cpu(), "shfe2ps = no\n"
                                                                     "device = exanic1\n"
                                                                     "split_all_field = -1\n"));
        }
    };
    EXPECT_EQ(feed.run(), 0);
    EXPECT_EQ(feed.card.calls()[3], "acquire_handle exanic1");
    ASSERT_EQ(feed.updates.size(), 2U);
    EXPECT_EQ(feed.updates[1].slot, 20479U);
    EXPECT_EQ(feed.card.reg(1398), 0xFFFFFFFFU);
    EXPECT_THAT(feed.log, testing::Contains("I ExanicTcpFunc RunTcpDecoder start initialization, "
                                            "enabled mask 0x4"));
}

TEST(FeedRestart, FailsWhenTheConfigurationIsGone) {
    FeedFixture feed;
    feed.config = shfe_config(feed.cpu());
    feed.cycles = {gap_cycle(0), plain_cycle(1)};
    feed.at_poll = [&](std::size_t, bool loading, uint64_t poll) {
        if (!loading && poll == 1) {
            std::filesystem::remove(feed.config_path);
        }
    };
    EXPECT_EQ(feed.run(), -1);
    EXPECT_EQ(feed.log.back(), "E ExanicMdImpl vorn_recv failed to initialize config data");
    EXPECT_EQ(feed.card.calls().size(), 3U) << "what the first cycle acquired stays acquired";
    EXPECT_EQ(feed.card.stores().back(), (RegisterStore{513, 0}));
}

TEST(FeedRestart, FailsWhenEveryFeedIsDisabledMeanwhile) {
    FeedFixture feed;
    feed.config = shfe_config(feed.cpu());
    feed.cycles = {gap_cycle(0), plain_cycle(1)};
    feed.at_poll = [&](std::size_t, bool loading, uint64_t poll) {
        if (!loading && poll == 1) {
            (void)feed.dir.write("feed.ini", shfe_config(feed.cpu(), "shfe2ps = no\n"));
        }
    };
    EXPECT_EQ(feed.run(), -1);
    EXPECT_EQ(feed.log.back(), "E ExanicMdImpl vorn_recv all SHFE and INE are disabled");
    EXPECT_EQ(feed.card.calls().size(), 6U);
}

TEST(FeedRestart, IsNotMadeOnceTheRunFlagIsDown) {
    FeedFixture feed;
    feed.config = shfe_config(feed.cpu());
    feed.cycles = {gap_cycle(0), plain_cycle(1)};
    feed.at_poll = [&](std::size_t, bool loading, uint64_t poll) {
        if (!loading && poll == 2) {
            feed.stop(); // the poll that delivers the gap
        }
    };
    EXPECT_EQ(feed.run(), 0);
    EXPECT_EQ(feed.log.back(), kGapLine);
    EXPECT_EQ(feed.card.calls().size(), 6U);
    EXPECT_EQ(feed.card.calls().back(), "release_handle");
}

TEST(FeedRestart, FollowsATopicThatIsNobodys) {
    FeedFixture feed;
    feed.config = shfe_config(feed.cpu());
    feed.cycles = {plain_cycle(0, {wirekit::decode_buffer().topic(77).bytes()}), plain_cycle(1)};
    EXPECT_EQ(feed.run(), 0);
    EXPECT_THAT(feed.log,
                testing::Contains("E ExanicUdpFunc _ParseMirp unsupported topicID: 0x4d"));
    ASSERT_GE(feed.phases.size(), 4U);
    EXPECT_EQ(feed.phases[1].polls, 1U);
    EXPECT_EQ(feed.updates.size(), 1U);
}

Bytes priced(uint32_t change_no, int32_t ticks) {
    return wirekit::decode_buffer()
        .topic(1000)
        .instrument(3)
        .change_no(change_no)
        .deal(ticks, 0, 0, 0)
        .bytes();
}

// Two cycles, each with one cached change, and a gap between them. Logs every cache offset.
void run_two_cached_cycles(FeedFixture& feed, const std::string& keys) {
    feed.config = shfe_config(feed.cpu(), "log_level = 31\n" + keys);
    feed.cycles = {
        {{priced(8, 11)}, snapshot_frames(kShfe, {rebar()}), {{}, shfe_stamp(10)}},
        {{priced(8, 22)}, snapshot_frames(kShfe, {rebar()}, 1), {{}, shfe_stamp(9, 90)}}};
    EXPECT_EQ(feed.run(), 0);
}

// An entry is 8 bytes and its buffer: 24 bytes of header and 32 of the deal field.
Lines cache_lines(const FeedFixture& feed) {
    Lines lines;
    for (const std::string& line : feed.log) {
        if (line.find(" offset: ") != std::string::npos) {
            lines.push_back(line);
        }
    }
    return lines;
}

// The put offset outlives a live gap, while each replay reads from the start of the cache: the
// second replay decodes the first cycle's entry again and leaves its own unread.
TEST(FeedRestart, ReplaysTheStartOfTheCacheAfterALiveGap) {
    FeedFixture feed;
    run_two_cached_cycles(feed, "");
    ASSERT_EQ(feed.updates.size(), 1U);
    EXPECT_EQ(feed.updates[0].record.last_px, 3011.0) << "the entry of the first cycle";
    EXPECT_EQ(feed.updates[0].record.change_no, 9U);
    EXPECT_THAT(
        cache_lines(feed),
        ElementsAre("X ExanicUdpFunc CachePacket cache decode buffer offset: 0, count: 0",
                    "X ExanicUdpFunc ProcessCached process decode buffer offset: 0, size: 56",
                    "X ExanicUdpFunc CachePacket cache decode buffer offset: 64, count: 0",
                    "X ExanicUdpFunc ProcessCached process decode buffer offset: 0, size: 56"));
}

TEST(FeedRestart, StartsWithAnEmptyCacheWhenRecoveryIsEnabled) {
    FeedFixture feed;
    run_two_cached_cycles(feed, "recovery = enabled\n");
    ASSERT_EQ(feed.updates.size(), 1U);
    EXPECT_EQ(feed.updates[0].record.last_px, 3022.0) << "the entry of the second cycle";
    EXPECT_THAT(
        cache_lines(feed),
        ElementsAre("X ExanicUdpFunc CachePacket cache decode buffer offset: 0, count: 0",
                    "X ExanicUdpFunc ProcessCached process decode buffer offset: 0, size: 56",
                    "X ExanicUdpFunc CachePacket cache decode buffer offset: 0, count: 0",
                    "X ExanicUdpFunc ProcessCached process decode buffer offset: 0, size: 56"));
}

TEST(FeedRestart, KeepsTheCacheForAnyOtherValueOfRecovery) {
    for (const char* keys : {"recovery = Enabled\n", "recovery = 1\n", "recovery =\n"}) {
        SCOPED_TRACE(keys);
        FeedFixture feed;
        run_two_cached_cycles(feed, keys);
        ASSERT_EQ(feed.updates.size(), 1U);
        EXPECT_EQ(feed.updates[0].record.last_px, 3011.0);
    }
}

TEST(FeedRestart, MayRepeatManyTimes) {
    FeedFixture feed;
    feed.config = shfe_config(feed.cpu());
    constexpr uint32_t kRounds = 12;
    for (uint32_t round = 0; round < kRounds; ++round) {
        feed.cycles.push_back(gap_cycle(round));
    }
    feed.cycles.push_back(plain_cycle(kRounds));
    EXPECT_EQ(feed.run(), 0);
    EXPECT_EQ(feed.updates.size(), kRounds + 1);
    EXPECT_EQ(feed.card.calls().size(), 3 * (kRounds + 1) + 3);
}

// --- More instruments than the card's tables have entries. The decoder refuses such numbers, so
// the counts are raised here, in the table itself, once the snapshot is complete.

struct CountCase {
    const char* name;
    int32_t shfe;
    int32_t ine;
    Lines reports;
};

class FeedCounts : public testing::TestWithParam<CountCase> {};

TEST_P(FeedCounts, AreReportedAboveTheLimitAndTheCycleGoesOn) {
    const CountCase& row = GetParam();
    FeedFixture feed;
    feed.config = shfe_config(feed.cpu());
    feed.cycles = {{{}, {}, {shfe_stamp(8, 80)}}};
    feed.at_poll = [&](std::size_t, bool loading, uint64_t poll) {
        if (!loading || poll != 1) {
            return;
        }
        for (const Bytes& frame : snapshot_frames(kShfe, {rebar()})) {
            feed.card.push(1, frame);
        }
        while (!feed.capture()->contains("initialization completed")) {
            ::sched_yield();
        }
        // Taking the logger's lock orders this thread behind the one that wrote the line.
        CCommonLog::GetInstance()->SetLogLevel(static_cast<ELOGLEVEL>(7));
        feed.table()->shfe_inst_cnt = row.shfe;
        feed.table()->ine_inst_cnt = row.ine;
    };
    EXPECT_EQ(feed.run(), 0);
    EXPECT_THAT(feed.log,
                ElementsAreArray(joined(Lines{kVersionLine}, feed.cycle_log("0x1", {kFinished}),
                                        row.reports, Lines{replay_line(0)})));
    EXPECT_EQ(feed.updates.size(), 1U);
}

const std::string kIneReport =
    "E ExanicMdImpl vorn_recv too many instruments, ine: 4097, limit: 4096";
const std::string kShfeReport =
    "E ExanicMdImpl vorn_recv too many instruments, shfe: 16385, limit: 16384";

INSTANTIATE_TEST_SUITE_P(
    Limits, FeedCounts,
    testing::Values(CountCase{"AtTheLimits", 16384, 4096, {}},
                    CountCase{"IneAbove", 16384, 4097, {kIneReport}},
                    CountCase{"ShfeAbove", 16385, 4096, {kShfeReport}},
                    CountCase{"BothAboveIneFirst", 16385, 4097, {kIneReport, kShfeReport}},
                    CountCase{"Negative", -1, -1, {}}),
    [](const auto& row) { return std::string(row.param.name); });

} // namespace
