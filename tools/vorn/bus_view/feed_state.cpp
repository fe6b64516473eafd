#include "tools/vorn/bus_view/feed_state.h"

#include <algorithm>
#include <iterator>

namespace vorn_cli {

namespace {

template <std::size_t Count>
const char* name_of(const char* const (&names)[Count], uint32_t value) {
    return value < Count ? names[value] : "unknown";
}

} // namespace

const char* feed_state_name(FeedState state) {
    static constexpr const char* kNames[] = {"live", "loading", "stale",
                                             "dead", "stopped", "absent"};
    return name_of(kNames, static_cast<uint32_t>(state));
}

const char* feed_phase_name(uint32_t phase) {
    static constexpr const char* kNames[] = {"stopped", "bring_up", "snapshot", "replay", "live"};
    static_assert(std::size(kNames) == VORN_MD_PHASE_LIVE + 1);
    return name_of(kNames, phase);
}

const char* feed_name(uint32_t feed) {
    static constexpr const char* kNames[] = {"shfe_2ps", "shfe_4ps", "ine_2ps", "ine_4ps"};
    static_assert(std::size(kNames) == VORN_MD_FEED_CNT);
    return name_of(kNames, feed);
}

const char* snapshot_fate_name(uint32_t fate) {
    static constexpr const char* kNames[] = {"started",   "in_order", "held",      "old",
                                             "unstarted", "foreign",  "malformed", "empty",
                                             "checksum",  "reset",    "late",      "dropped"};
    static_assert(std::size(kNames) == VORN_MD_FATE_CNT);
    return name_of(kNames, fate);
}

FeedState feed_state(const FeedSigns& signs) {
    if (!signs.bus) {
        return FeedState::kAbsent;
    }
    if (signs.writer == WriterCondition::kClosed) {
        return FeedState::kStopped;
    }
    if (signs.writer == WriterCondition::kDead || signs.heartbeat_age_ns > kDeadAfterNs) {
        return FeedState::kDead;
    }
    if (signs.phase_since_ns == 0) {
        return FeedState::kLoading;
    }
    if (signs.phase == VORN_MD_PHASE_STOPPED) {
        return FeedState::kStopped;
    }
    if (signs.phase != VORN_MD_PHASE_LIVE) {
        return FeedState::kLoading;
    }
    const uint64_t newest = std::max(signs.last_update_ns, signs.phase_since_ns);
    const bool stale = signs.now_ns > newest && signs.now_ns - newest >= signs.stale_after_ns;
    return stale ? FeedState::kStale : FeedState::kLive;
}

} // namespace vorn_cli
