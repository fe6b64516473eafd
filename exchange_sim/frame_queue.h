#pragma once

// Frames on their way out. They are made a little ahead of their time, by several senders, and
// leave in the order of their time stamps; frames of one time leave in the order in which they were
// made.

#include "wirekit/bytes.h"

#include <algorithm>
#include <vector>

namespace exchange_sim {

class FrameQueue {
public:
    bool empty() const { return heap_.empty(); }
    uint64_t next_time() const { return heap_.front().time_ns; } // not empty

    // Room for a frame that leaves at `time_ns`, to be filled before the next call.
    wirekit::Bytes& add(uint64_t time_ns) {
        uint32_t slot = 0;
        if (unused_.empty()) {
            slot = static_cast<uint32_t>(slots_.size());
            slots_.emplace_back();
        } else {
            slot = unused_.back();
            unused_.pop_back();
        }
        heap_.push_back({time_ns, sequence_++, slot});
        std::push_heap(heap_.begin(), heap_.end(), later);
        return slots_[slot];
    }

    // The earliest frame; its bytes stay valid until the next pop().
    const wirekit::Bytes& pop(uint64_t& time_ns) {
        if (has_current_) {
            unused_.push_back(current_);
        }
        std::pop_heap(heap_.begin(), heap_.end(), later);
        const Entry entry = heap_.back();
        heap_.pop_back();
        current_ = entry.slot;
        has_current_ = true;
        time_ns = entry.time_ns;
        return slots_[current_];
    }

private:
    struct Entry {
        uint64_t time_ns;
        uint64_t sequence;
        uint32_t slot;
    };
    static bool later(const Entry& left, const Entry& right) {
        return left.time_ns != right.time_ns ? left.time_ns > right.time_ns
                                             : left.sequence > right.sequence;
    }

    std::vector<Entry> heap_;
    std::vector<wirekit::Bytes> slots_;
    std::vector<uint32_t> unused_;
    uint64_t sequence_ = 0;
    uint32_t current_ = 0;
    bool has_current_ = false;
};

} // namespace exchange_sim
