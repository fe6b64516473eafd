// The time that the snapshot may take, by a wall clock that the tests set. The decoder thread reads
// the clock after each poll of the raw port, so each poll sets what it will read.

#include "feed_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using testing::ElementsAreArray;
using testing::IsEmpty;

constexpr int64_t kStart = 1'800'000'000;
constexpr char kWarning[] = "initialization still not completed";
constexpr char kWarningLine[] = "W ExanicTcpFunc RunTcpDecoder initialization still not completed";
constexpr char kFailureLine[] = "E ExanicTcpFunc RunTcpDecoder too many initialization failures";

// The log of a run whose snapshot is given up after `warnings` warnings.
Lines failed_log(const FeedFixture& feed, int warnings) {
    Lines lines = joined(Lines{kVersionLine}, feed.cycle_log("0x5", {}));
    lines.pop_back();
    lines.insert(lines.end(), static_cast<std::size_t>(warnings), kWarningLine);
    lines.emplace_back(kFailureLine);
    return lines;
}

void expect_left_as_it_was(const FeedFixture& feed) {
    const Stores opened = {{513, 1}, {512, 1}, {514, 1}, {515, 1}};
    support::expect_stores(
        feed.card.stores(),
        joined(support::bring_up_stores(joined(kShfeLines, kIneLines), 1), opened));
    EXPECT_EQ(feed.card.calls().size(), 3U) << "nothing is released";
    EXPECT_THAT(feed.updates, IsEmpty());
}

TEST(FeedBudget, OfThreePeriodsWarnsTwiceThenFails) {
    FeedFixture feed;
    feed.config = config_text(feed.cpu(), "timeout_cnt = 3\n");
    feed.cycles = {{}};
    system_calls::set_wall_clock(kStart);
    struct Step {
        int64_t elapsed;
        std::size_t warnings_before;
    };
    const std::vector<Step> steps = {{120, 0}, {121, 0}, {240, 1}, {241, 1}, {360, 2}, {361, 2}};
    feed.at_raw_poll = [&](uint64_t poll) {
        ASSERT_LE(poll, steps.size());
        EXPECT_EQ(feed.capture()->count(kWarning), steps[poll - 1].warnings_before) << poll;
        system_calls::set_wall_clock(kStart + steps[poll - 1].elapsed);
    };
    EXPECT_EQ(feed.run(), -1);
    EXPECT_THAT(feed.log, ElementsAreArray(failed_log(feed, 2)));
    EXPECT_EQ(feed.card.polls(1), steps.size());
    expect_left_as_it_was(feed);
}

TEST(FeedBudget, OfOnePeriodOrLessFailsAfterTheFirst) {
    for (const char* const count : {"1", "0", "-5", "", "32768"}) {
        FeedFixture feed;
        feed.config = config_text(feed.cpu(), std::string("timeout_cnt = ") + count + "\n");
        feed.cycles = {{}};
        system_calls::set_wall_clock(kStart);
        feed.at_raw_poll = [](uint64_t poll) {
            system_calls::set_wall_clock(kStart + (poll < 3 ? 120 : 121));
        };
        EXPECT_EQ(feed.run(), -1) << count;
        EXPECT_THAT(feed.log, ElementsAreArray(failed_log(feed, 0))) << count;
        EXPECT_EQ(feed.card.polls(1), 3U);
        expect_left_as_it_was(feed);
    }
}

TEST(FeedBudget, IsTenPeriodsByDefault) {
    FeedFixture feed;
    feed.cycles = {{}};
    system_calls::set_wall_clock(kStart);
    feed.at_raw_poll = [](uint64_t poll) {
        system_calls::set_wall_clock(kStart + 120 * static_cast<int64_t>(poll) + 1);
    };
    EXPECT_EQ(feed.run(), -1);
    EXPECT_THAT(feed.log, ElementsAreArray(failed_log(feed, 9)));
    EXPECT_EQ(feed.card.polls(1), 10U);
}

TEST(FeedBudget, IsUsedUpByAJumpOfTheClockPassByPass) {
    FeedFixture feed;
    feed.config = config_text(feed.cpu(), "timeout_cnt = 3\n");
    feed.cycles = {{}};
    system_calls::set_wall_clock(kStart);
    feed.at_raw_poll = [](uint64_t) { system_calls::set_wall_clock(kStart + 86400); };
    EXPECT_EQ(feed.run(), -1);
    EXPECT_THAT(feed.log, ElementsAreArray(failed_log(feed, 2)));
    EXPECT_EQ(feed.card.polls(1), 3U);
}

TEST(FeedBudget, IsExtendedWhenTheClockGoesBack) {
    FeedFixture feed;
    feed.config = config_text(feed.cpu(), "timeout_cnt = 1\n");
    feed.cycles = {{}};
    system_calls::set_wall_clock(kStart);
    feed.at_raw_poll = [&](uint64_t poll) {
        system_calls::set_wall_clock(kStart - 3600);
        if (poll == 20) {
            feed.stop();
        }
    };
    EXPECT_EQ(feed.run(), 0);
    EXPECT_THAT(feed.log_at("EW"), IsEmpty());
}

TEST(FeedBudget, LeftAfterAWarningIsEnoughForTheSnapshot) {
    FeedFixture feed;
    feed.config = shfe_config(feed.cpu(), "timeout_cnt = 2\n");
    feed.cycles = {{{}, {}, {shfe_stamp(8)}}};
    system_calls::set_wall_clock(kStart);
    feed.at_raw_poll = [&](uint64_t poll) {
        if (poll == 1) {
            system_calls::set_wall_clock(kStart + 121);
            for (const Bytes& frame : snapshot_frames(kShfe, {rebar()})) {
                feed.card.push(1, frame);
            }
        }
    };
    EXPECT_EQ(feed.run(), 0);
    EXPECT_THAT(feed.log_at("EW"), testing::ElementsAre(kWarningLine));
    EXPECT_THAT(feed.log, testing::Contains("I ExanicTcpFunc RunTcpDecoder initialization "
                                            "completed"));
    EXPECT_EQ(feed.updates.size(), 1U);
}

TEST(FeedBudget, IsCountedAnewAfterARestart) {
    FeedFixture feed;
    feed.config = shfe_config(feed.cpu(), "timeout_cnt = 2\n");
    feed.cycles = {{{}, snapshot_frames(kShfe, {rebar()}), {shfe_stamp(8), shfe_stamp(10)}}, {}};
    system_calls::set_wall_clock(kStart);
    uint64_t first_polls = 0;
    feed.at_poll = [&](std::size_t cycle, bool loading, uint64_t poll) {
        if (cycle == 0 && !loading && poll == 1) {
            first_polls = feed.card.polls(1);
            system_calls::set_wall_clock(kStart + 1000000); // live for days: no budget runs
        }
    };
    feed.at_raw_poll = [&](uint64_t poll) {
        if (first_polls != 0) {
            system_calls::set_wall_clock(kStart + 1000000 +
                                         121 * static_cast<int64_t>(poll - first_polls));
        }
    };
    EXPECT_EQ(feed.run(), -1);
    EXPECT_EQ(feed.log.back(), kFailureLine);
    EXPECT_EQ(feed.log[feed.log.size() - 2], kWarningLine);
    EXPECT_EQ(feed.card.polls(1) - first_polls, 2U);
    EXPECT_EQ(feed.card.reg(513), 1U) << "the data paths are left open";
}

TEST(FeedBudget, SpentInOneRunDoesNotCountInTheNext) {
    FeedFixture feed;
    feed.config = shfe_config(feed.cpu(), "timeout_cnt = 1\n");
    feed.cycles = {{}};
    system_calls::set_wall_clock(kStart);
    feed.at_raw_poll = [](uint64_t) { system_calls::set_wall_clock(kStart + 121); };
    EXPECT_EQ(feed.run(), -1);
    feed.at_raw_poll = nullptr;
    feed.phases.clear();
    feed.card.reset();
    feed.cycles = {{{}, snapshot_frames(kShfe, {rebar()}), {}}};
    EXPECT_EQ(feed.run(), 0);
}

} // namespace
