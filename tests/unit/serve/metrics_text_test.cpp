#include "tools/vorn/serve/metrics_text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace vorn_cli;
using testing::HasSubstr;
using testing::Not;

namespace {

FeedStatus live_status() {
    FeedStatus status;
    status.state = FeedState::kLive;
    status.phase = VORN_MD_PHASE_LIVE;
    status.last_update_ns = 1;
    status.age_ns = 250'000'000;
    status.generation = 2;
    status.has_counters = true;
    status.counters.gaps = 3;
    status.counters.frames = 1'000'000'007;
    status.counters.snapshot_fate[VORN_MD_FATE_HELD] = 5;
    status.counters.time_in_phase_ns[VORN_MD_PHASE_REPLAY] = 1'500'000'000;
    status.ring_lost = 11;
    return status;
}

TEST(Metrics, HaveNamesWithUnitsAndAType) {
    const std::string text = metrics_text(live_status(), 400, {1, 2, 3, 4});
    for (const char* line : {
             "# TYPE vorn_feed_gaps_total counter\nvorn_feed_gaps_total 3\n",
             "# HELP vorn_feed_gaps_total Changes ahead of the expected number.\n",
             "vorn_feed_frames_total 1000000007\n",
             "vorn_feed_last_update_age_seconds 0.25\n",
             "vorn_feed_state{state=\"live\"} 1\n",
             "vorn_feed_state{state=\"dead\"} 0\n",
             "vorn_feed_phase{phase=\"live\"} 1\n",
             "vorn_feed_snapshot_frames_total{fate=\"held\"} 5\n",
             "vorn_feed_phase_seconds_total{phase=\"replay\"} 1.5\n",
             "vorn_feed_instruments 400\n",
             "vorn_bus_generation 2\n",
             "vorn_serve_connections 1\n",
             "vorn_serve_streams 2\n",
             "vorn_serve_refused_connections_total 4\n",
             "vorn_serve_bus_records_lost_total 11\n",
         }) {
        EXPECT_THAT(text, HasSubstr(line));
    }
}

TEST(Metrics, LeaveOutWhatIsNotKnown) {
    const std::string text = metrics_text(FeedStatus{}, 0, {});
    EXPECT_THAT(text, HasSubstr("vorn_feed_state{state=\"absent\"} 1\n"));
    EXPECT_THAT(text, HasSubstr("vorn_serve_streams 0\n"));
    EXPECT_THAT(text, Not(HasSubstr("vorn_feed_gaps_total")));
    EXPECT_THAT(text, Not(HasSubstr("last_update_age")));
    EXPECT_THAT(text, Not(HasSubstr("vorn_bus_generation")));
    EXPECT_THAT(text, Not(HasSubstr("} 1\nvorn_feed_phase")));
}

} // namespace
