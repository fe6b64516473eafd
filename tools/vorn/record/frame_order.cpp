#include "tools/vorn/record/frame_order.h"

#include <algorithm>

namespace vorn_cli {

namespace {

constexpr uint64_t kAll = UINT64_MAX;

bool may_leave(const auto& queue) {
    return !queue.empty() && !queue.front().held;
}

} // namespace

void FrameOrder::raw(uint64_t time_ns, std::span<const char> frame) {
    const bool round_may_end =
        tracker_.see({reinterpret_cast<const uint8_t*>(frame.data()), frame.size()});
    if (round_may_end && !holding_raw_) {
        holding_raw_ = true;
        ticks_held_ = 0;
    }
    raw_.push_back({time_ns, 0, holding_raw_, {frame.data(), frame.size()}});
    newest_ns_ = std::max(newest_ns_, time_ns);
}

void FrameOrder::decode(uint64_t time_ns, std::span<const char> frame, bool usable) {
    numbered_ += usable ? 1 : 0;
    decode_.push_back({time_ns, numbered_, holding_decode_, {frame.data(), frame.size()}});
    newest_ns_ = std::max(newest_ns_, time_ns);
}

void FrameOrder::cycle_begins() {
    place_round_end(kAll);
    tracker_.reset();
    numbered_ = 0;
}

void FrameOrder::snapshot_over() {
    holding_decode_ = holding_raw_;
}

void FrameOrder::first_update(uint64_t later_buffers) {
    place_round_end(numbered_ - std::min(numbered_, later_buffers));
}

void FrameOrder::live() {
    place_round_end(kAll);
}

// The held raw frames go behind the decode buffers of smaller numbers.
void FrameOrder::place_round_end(uint64_t before_number) {
    if (holding_raw_) {
        emit_sorted(kAll);
        while (!decode_.empty() && decode_.front().number < before_number) {
            emit_front(decode_);
        }
        while (!raw_.empty()) {
            emit_front(raw_);
        }
    }
    release();
}

void FrameOrder::release() {
    holding_raw_ = false;
    holding_decode_ = false;
    for (std::deque<Frame>* queue : {&raw_, &decode_}) {
        for (Frame& frame : *queue) {
            frame.held = false;
        }
    }
}

void FrameOrder::emit_front(std::deque<Frame>& queue) {
    const Frame& frame = queue.front();
    emit_(frame.time_ns, frame.bytes);
    queue.pop_front();
}

void FrameOrder::emit_sorted(uint64_t until_ns) {
    while (may_leave(raw_) || may_leave(decode_)) {
        const bool raw_first = may_leave(raw_) && (!may_leave(decode_) ||
                                                   raw_.front().time_ns < decode_.front().time_ns);
        std::deque<Frame>& queue = raw_first ? raw_ : decode_;
        if (queue.front().time_ns > until_ns) {
            return;
        }
        emit_front(queue);
    }
}

void FrameOrder::tick() {
    if (holding_raw_ && !holding_decode_ && ++ticks_held_ > kHoldTicks) {
        release();
    }
    emit_sorted(settled_ns_);
    settled_ns_ = newest_ns_;
}

void FrameOrder::finish() {
    place_round_end(kAll);
    emit_sorted(kAll);
}

} // namespace vorn_cli
