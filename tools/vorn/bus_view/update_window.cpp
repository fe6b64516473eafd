#include "tools/vorn/bus_view/update_window.h"

#include <algorithm>

namespace vorn_cli {

UpdateWindow::UpdateWindow(uint64_t length_ns)
    : step_ns_(std::max<uint64_t>(length_ns / kSteps, 1)), totals_(INSTRUMENT_SLOT_CNT) {}

void UpdateWindow::add(uint32_t slot, uint64_t time_ns) {
    const uint64_t index = time_ns / step_ns_;
    if (slot >= totals_.size() || index < oldest_index_) {
        return;
    }
    Step& step = step_at(index);
    ++step.by_slot[slot];
    ++step.updates;
    ++totals_[slot];
    ++updates_;
}

void UpdateWindow::add_lost(uint64_t records, uint64_t time_ns) {
    const uint64_t index = time_ns / step_ns_;
    if (index < oldest_index_) {
        return;
    }
    step_at(index).lost += records;
    lost_ += records;
}

UpdateWindow::Step& UpdateWindow::step_at(uint64_t index) {
    const auto later = std::find_if(steps_.rbegin(), steps_.rend(),
                                    [&](const Step& step) { return step.index <= index; });
    if (later != steps_.rend() && later->index == index) {
        return *later;
    }
    return *steps_.insert(later.base(),
                          Step{index, 0, 0, std::vector<uint32_t>(INSTRUMENT_SLOT_CNT)});
}

void UpdateWindow::advance(uint64_t now_ns) {
    const uint64_t current = now_ns / step_ns_;
    oldest_index_ = std::max(oldest_index_, current < kSteps ? 0 : current - kSteps + 1);
    while (!steps_.empty() && steps_.front().index < oldest_index_) {
        const Step& step = steps_.front();
        for (std::size_t slot = 0; slot < totals_.size(); ++slot) {
            totals_[slot] -= step.by_slot[slot];
        }
        updates_ -= step.updates;
        lost_ -= step.lost;
        steps_.pop_front();
    }
}

void UpdateWindow::clear() {
    steps_.clear();
    std::fill(totals_.begin(), totals_.end(), 0);
    updates_ = 0;
    lost_ = 0;
    oldest_index_ = 0;
    begin_ns_ = 0;
}

uint64_t UpdateWindow::span_ns(uint64_t now_ns) const {
    const uint64_t begin = std::max(begin_ns_, oldest_index_ * step_ns_);
    return std::max(now_ns > begin ? now_ns - begin : 0, step_ns_);
}

std::vector<UpdateWindow::Count> UpdateWindow::busiest(std::size_t most) const {
    std::vector<Count> counts;
    for (uint32_t slot = 0; slot < totals_.size(); ++slot) {
        if (totals_[slot] > 0) {
            counts.push_back({slot, totals_[slot]});
        }
    }
    const auto end = counts.begin() + static_cast<std::ptrdiff_t>(std::min(most, counts.size()));
    std::partial_sort(counts.begin(), end, counts.end(), [](const Count& a, const Count& b) {
        return a.updates != b.updates ? a.updates > b.updates : a.slot < b.slot;
    });
    counts.erase(end, counts.end());
    return counts;
}

} // namespace vorn_cli
