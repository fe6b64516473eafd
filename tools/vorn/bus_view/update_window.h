#pragma once

// Counts updates by instrument over the last seconds.

#include "ExanicMdTypes.h"

#include <array>
#include <cstdint>
#include <deque>
#include <vector>

namespace vorn_cli {

// A sliding window in steps of a tenth of its length. One thread.
class UpdateWindow {
public:
    explicit UpdateWindow(uint64_t length_ns);

    // An update of an instrument at that time (nanoseconds of any clock, about in order). Those of
    // before the window count for nothing.
    void add(uint32_t slot, uint64_t time_ns);
    // Records that nobody could read.
    void add_lost(uint64_t records, uint64_t time_ns);
    // Lets go what is older than the window's length at that time.
    void advance(uint64_t now_ns);
    void clear();

    // What has been counted since that time; a rate is about this and not about more.
    void begin_at(uint64_t time_ns) { begin_ns_ = time_ns; }

    uint64_t updates(uint32_t slot) const { return slot < totals_.size() ? totals_[slot] : 0; }
    uint64_t updates() const { return updates_; }
    uint64_t lost() const { return lost_; }
    // How much time the counts are about: the length, or less after the beginning. At least one
    // step, so that a rate never comes from a moment.
    uint64_t span_ns(uint64_t now_ns) const;

    struct Count {
        uint32_t slot;
        uint64_t updates;
    };
    // The busiest instruments, those with the same count by slot; none without an update.
    std::vector<Count> busiest(std::size_t most) const;

private:
    static constexpr uint64_t kSteps = 10;

    struct Step {
        uint64_t index; // time divided by the step
        uint64_t updates = 0;
        uint64_t lost = 0;
        std::vector<uint32_t> by_slot;
    };
    Step& step_at(uint64_t index);

    uint64_t step_ns_;
    uint64_t begin_ns_ = 0;
    std::deque<Step> steps_; // at most kSteps + 1, in order
    std::vector<uint32_t> totals_;
    uint64_t updates_ = 0;
    uint64_t lost_ = 0;
    uint64_t oldest_index_ = 0;
};

} // namespace vorn_cli
