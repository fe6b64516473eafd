#pragma once

// What a running feed is, in one word, as somebody sees it who looks at its bus.

#include "ExanicMdMonitor.h"

#include <cstdint>

namespace vorn_cli {

enum class FeedState : uint8_t { kLive, kLoading, kStale, kDead, kStopped, kAbsent };
const char* feed_state_name(FeedState state); // "live", "loading", ...

// VORN_MD_PHASE_... as "stopped", "bring_up", "snapshot", "replay", "live"; others "unknown".
const char* feed_phase_name(uint32_t phase);
// VORN_MD_FEED_... as "shfe_2ps", ...; others "unknown".
const char* feed_name(uint32_t feed);
// VORN_MD_FATE_... as "started", "in_order", ...; others "unknown".
const char* snapshot_fate_name(uint32_t fate);

// How the writer of the bus does.
enum class WriterCondition : uint8_t { kAlive, kDead, kClosed };

// What the state follows from. Times are CLOCK_MONOTONIC in nanoseconds, 0: never.
struct FeedSigns {
    bool bus = false; // there is one that can be read
    WriterCondition writer = WriterCondition::kAlive;
    uint64_t heartbeat_age_ns = 0;
    uint32_t phase = VORN_MD_PHASE_STOPPED;
    uint64_t phase_since_ns = 0; // 0: the feed has not begun
    uint64_t last_update_ns = 0;
    uint64_t now_ns = 0;
    uint64_t stale_after_ns = 0;
};

// A writer whose heartbeat is older is taken for dead, whatever the system says of its process.
inline constexpr uint64_t kDeadAfterNs = 2'000'000'000;
// Below 2 s by more than a heartbeat, so that within 2 s of the last update everybody knows.
inline constexpr uint64_t kStaleAfterNs = 1'500'000'000;

// The first rule that holds:
//
//   absent    no bus of this name can be opened
//   stopped   the writer has ended in order
//   dead      the writer's process is gone, or its heartbeat is older than kDeadAfterNs
//   loading   the feed has not begun, or is in bring-up, snapshot or replay
//   stopped   the feed has ended
//   stale     phase live, and neither an update nor the phase itself is younger than stale_after_ns
//   live
FeedState feed_state(const FeedSigns& signs);

} // namespace vorn_cli
