#pragma once

// Watches the feed from the link line: the linker sends the feed's card calls (--wrap) through here
// on their way to the card, whichever card that is. The feed's own code is the one that ships.
//
// What becomes of a decode buffer is told from its record before the feed handles it, and, where
// that leaves it open, from whether a callback came before the next poll.

#include "ExanicMdTypes.h"

#include <array>
#include <chrono>
#include <cstdint>
#include <span>

namespace vorn_cli {

// Where a cycle of the feed stands.
enum class FeedPhase : uint8_t { kBringUp, kSnapshot, kReplay, kLive, kOver };
inline constexpr std::size_t kFeedPhases = 5;
const char* phase_name(FeedPhase phase);

// What the tap knows of the configuration: topics, so that a decode buffer's instrument can be
// found in the table, and what decides which buffers the feed handles and keeps.
struct TapTopics {
    int16_t shfe[2] = {1000, 1101};
    int16_t ine[2] = {5000, 5101};
    bool options = true;   // options are handled
    bool recovery = false; // each cycle starts with an empty cache
};

struct TapCounters {
    uint64_t cycles = 0;         // bring-ups; every one after the first is a restart
    uint64_t raw_frames = 0;     // raw port
    uint64_t decode_buffers = 0; // decode port, whatever became of them
    uint64_t abnormal = 0;       // lengths that the feed refuses, without the two below
    uint64_t overflows = 0;      // -256: the reader was lapped
    uint64_t damaged = 0;        // other negative results
    uint64_t cached = 0;         // during snapshot and replay
    uint64_t replayed = 0;
    // Live decode buffers by what became of them.
    uint64_t applied = 0;
    uint64_t stale = 0;
    uint64_t unsubscribed = 0;
    uint64_t options_skipped = 0;
    uint64_t restored = 0; // undone because of an inconsistent book
    uint64_t gaps = 0;
    uint64_t other = 0; // unknown topic, number out of range, header of another kind
    std::array<std::chrono::nanoseconds, kFeedPhases> time_in{};
};

// Takes the frames themselves, all of both paths, with their time stamps in nanoseconds since the
// Unix epoch: the card's where it has one, else the time of receipt. The calls may come from two
// threads at a time, one a path, unless in_step().
class FrameKeeper {
public:
    FrameKeeper() = default;
    FrameKeeper(const FrameKeeper&) = delete;
    FrameKeeper& operator=(const FrameKeeper&) = delete;
    virtual ~FrameKeeper() = default;

    // Whether the card moves only as it is read. The two paths are then polled one at a time, so
    // that the keeper sees the frames in the order in which the card hands them out. On a card that
    // runs by itself nobody waits for anybody.
    virtual bool in_step() const = 0;
    virtual void keep_raw(std::span<const char> frame, uint64_t time_ns) = 0;
    virtual void keep_decode(std::span<const char> buffer, uint64_t time_ns) = 0;
};

// What a subcommand may want to see as it happens. Every call comes on the feed's caller thread but
// on_raw_frame, which comes on the snapshot decoder's.
class FeedWatcher {
public:
    FeedWatcher() = default;
    FeedWatcher(const FeedWatcher&) = delete;
    FeedWatcher& operator=(const FeedWatcher&) = delete;
    virtual ~FeedWatcher() = default;

    virtual void on_update(const instrument&, uint32_t /*slot*/) {}
    virtual void on_phase(FeedPhase) {}
    // Before the first update of a cycle: how many decode buffers came after the one that makes it.
    virtual void on_first_update(uint64_t /*later_buffers*/) {}
    virtual void on_raw_frame(std::span<const char>) {}
    virtual void on_decode_buffer(std::span<const char>) {}
    virtual FrameKeeper* frame_keeper() { return nullptr; } // asked once, when the tap is installed
};

// Installs the tap for one run of the feed, which must be the only one in the process.
class CardTap {
public:
    CardTap(const TapTopics& topics, FeedWatcher& watcher);
    ~CardTap();
    CardTap(const CardTap&) = delete;
    CardTap& operator=(const CardTap&) = delete;

    // After the feed has returned.
    void finish();
    const TapCounters& counters() const;
};

} // namespace vorn_cli
