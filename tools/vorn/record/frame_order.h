#pragma once

// Brings the frames of two paths into the one order of a capture, for a card that runs by itself.
//
// Two threads receive, so there is no order but that of the time stamps. Frames wait for a tick or
// two, until what the other path received at the same time has arrived, and leave sorted.
//
// One frame needs a better place than its time gives it. The software card that replays the capture
// takes every decode buffer before the end of a snapshot round for one that the feed cached, and
// the feed keeps silent about as many updates as it cached buffers. In the session the feed went on
// caching until its worker had digested the end of the round, and on into its replay. The capture
// gives the same callbacks if the end of the round stands behind the last buffer that was handled
// silently. So raw frames from a possible end of a round on are held until the feed has told
//
//   - which buffer made the first callback: the raw frames leave just before it; or
//   - that it is live, or starts again, without one: they leave behind every buffer so far;
//
// or until it goes on reading raw frames for so long that this end was not the one. Decode buffers
// are held, too, from the end of the snapshot phase to that moment. Time stamps then never fall
// because whoever writes raises them.
//
// One thread.

#include "softcard/firmware/round_tracker.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <span>
#include <string>

namespace vorn_cli {

class FrameOrder {
public:
    using Emit = std::function<void(uint64_t time_ns, std::span<const char> frame)>;
    static constexpr int kHoldTicks = 500; // for an end of a round that the feed does not mind

    explicit FrameOrder(Emit emit) : emit_(std::move(emit)) {}

    void raw(uint64_t time_ns, std::span<const char> frame);
    // `usable`: of a size that the feed handles.
    void decode(uint64_t time_ns, std::span<const char> frame, bool usable);

    // What the feed does, in the order of the decode path.
    void cycle_begins();
    void snapshot_over();
    void first_update(uint64_t later_buffers); // FeedWatcher::on_first_update
    void live();

    // What came before the tick before this one leaves. Called every 20 ms or so.
    void tick();
    void finish();

private:
    struct Frame {
        uint64_t time_ns;
        uint64_t number; // decode: of its cycle, usable ones counted
        bool held;
        std::string bytes;
    };

    void emit_front(std::deque<Frame>& queue);
    void emit_sorted(uint64_t until_ns);
    void place_round_end(uint64_t before_number);
    void release();

    Emit emit_;
    softcard::RoundTracker tracker_;
    std::deque<Frame> raw_;
    std::deque<Frame> decode_;
    bool holding_raw_ = false;    // a round may have ended
    bool holding_decode_ = false; // the feed replays its cache
    int ticks_held_ = 0;
    uint64_t numbered_ = 0; // usable decode buffers of this cycle
    uint64_t newest_ns_ = 0;
    uint64_t settled_ns_ = 0; // newest_ns_ at the last tick
};

} // namespace vorn_cli
