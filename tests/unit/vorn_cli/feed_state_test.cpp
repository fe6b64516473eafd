// The state of a feed from what its bus shows.

#include "tools/vorn/bus_view/feed_state.h"

#include <gtest/gtest.h>

#include <string>

using vorn_cli::feed_state;
using vorn_cli::FeedSigns;
using vorn_cli::FeedState;
using vorn_cli::WriterCondition;

namespace {

constexpr uint64_t kSecond = 1'000'000'000;
constexpr uint64_t kNow = 1000 * kSecond;
constexpr uint64_t kLimit = 2 * kSecond;

// A feed that lives, last updated a moment ago.
FeedSigns live() {
    FeedSigns signs;
    signs.bus = true;
    signs.heartbeat_age_ns = 50'000'000;
    signs.phase = VORN_MD_PHASE_LIVE;
    signs.phase_since_ns = kNow - 100 * kSecond;
    signs.last_update_ns = kNow - 1000;
    signs.now_ns = kNow;
    signs.stale_after_ns = kLimit;
    return signs;
}

struct StateCase {
    const char* name;
    void (*change)(FeedSigns&);
    FeedState state;
};
std::ostream& operator<<(std::ostream& out, const StateCase& row) {
    return out << row.name;
}

const StateCase kCases[] = {
    {"Live", [](FeedSigns&) {}, FeedState::kLive},
    {"NoBus", [](FeedSigns& s) { s.bus = false; }, FeedState::kAbsent},
    {"ClosedBeforeDead",
     [](FeedSigns& s) {
         s.writer = WriterCondition::kClosed;
         s.heartbeat_age_ns = 60 * kSecond;
     },
     FeedState::kStopped},
    {"ProcessGone", [](FeedSigns& s) { s.writer = WriterCondition::kDead; }, FeedState::kDead},
    {"HeartbeatJustInTime", [](FeedSigns& s) { s.heartbeat_age_ns = vorn_cli::kDeadAfterNs; },
     FeedState::kLive},
    {"HeartbeatTooOld", [](FeedSigns& s) { s.heartbeat_age_ns = vorn_cli::kDeadAfterNs + 1; },
     FeedState::kDead},
    {"NotBegun",
     [](FeedSigns& s) {
         s.phase = VORN_MD_PHASE_STOPPED;
         s.phase_since_ns = 0;
     },
     FeedState::kLoading},
    {"BringUp", [](FeedSigns& s) { s.phase = VORN_MD_PHASE_BRING_UP; }, FeedState::kLoading},
    {"Snapshot", [](FeedSigns& s) { s.phase = VORN_MD_PHASE_SNAPSHOT; }, FeedState::kLoading},
    {"Replay", [](FeedSigns& s) { s.phase = VORN_MD_PHASE_REPLAY; }, FeedState::kLoading},
    {"FeedHasEnded", [](FeedSigns& s) { s.phase = VORN_MD_PHASE_STOPPED; }, FeedState::kStopped},
    {"LastMomentOfLive", [](FeedSigns& s) { s.last_update_ns = kNow - kLimit + 1; },
     FeedState::kLive},
    {"FirstMomentOfStale", [](FeedSigns& s) { s.last_update_ns = kNow - kLimit; },
     FeedState::kStale},
    {"NoUpdateYetButLiveOfLate",
     [](FeedSigns& s) {
         s.last_update_ns = 0;
         s.phase_since_ns = kNow - kLimit + 1;
     },
     FeedState::kLive},
    {"NoUpdateYetForLong",
     [](FeedSigns& s) {
         s.last_update_ns = 0;
         s.phase_since_ns = kNow - kLimit;
     },
     FeedState::kStale},
    {"UpdateThatCameAfterTheClockWasRead", [](FeedSigns& s) { s.last_update_ns = kNow + kSecond; },
     FeedState::kLive},
};

class FeedStateRule : public testing::TestWithParam<StateCase> {};

TEST_P(FeedStateRule, Holds) {
    FeedSigns signs = live();
    GetParam().change(signs);
    EXPECT_STREQ(feed_state_name(feed_state(signs)), feed_state_name(GetParam().state));
}

INSTANTIATE_TEST_SUITE_P(States, FeedStateRule, testing::ValuesIn(kCases),
                         [](const auto& row) { return std::string(row.param.name); });

TEST(FeedStateNames, AreGivenForEveryValueAndOthers) {
    EXPECT_STREQ(vorn_cli::feed_state_name(FeedState::kAbsent), "absent");
    EXPECT_STREQ(vorn_cli::feed_phase_name(VORN_MD_PHASE_LIVE), "live");
    EXPECT_STREQ(vorn_cli::feed_phase_name(5), "unknown");
    EXPECT_STREQ(vorn_cli::feed_name(VORN_MD_FEED_INE_4PS), "ine_4ps");
    EXPECT_STREQ(vorn_cli::feed_name(VORN_MD_FEED_CNT), "unknown");
    EXPECT_STREQ(vorn_cli::snapshot_fate_name(VORN_MD_FATE_DROPPED), "dropped");
    EXPECT_STREQ(vorn_cli::snapshot_fate_name(0xffffffff), "unknown");
}

// The operators' promise: two seconds after the last update at most, heartbeat included.
TEST(FeedStateLimits, StaleIsKnownWithinTwoSeconds) {
    EXPECT_LT(vorn_cli::kStaleAfterNs + 200'000'000, 2 * kSecond);
    EXPECT_GT(vorn_cli::kStaleAfterNs, kSecond);
}

} // namespace
