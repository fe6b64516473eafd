#pragma once

#include <bit>
#include <cstdint>
#include <vector>

namespace vorn_cli {

// Counts times in nanoseconds, in memory that does not grow: exact below 256, above that in steps
// of less than one per cent.
class LeadHistogram {
public:
    void add(uint64_t ns) {
        if (counts_.empty()) {
            counts_.resize(kBuckets);
        }
        ++counts_[bucket(ns)];
        ++count_;
        max_ns_ = ns > max_ns_ ? ns : max_ns_;
    }
    uint64_t count() const { return count_; }
    uint64_t max_ns() const { return max_ns_; }

    // The least time that `share` (0 to 1) of all do not exceed, rounded down to its step; 0 when
    // there are none.
    uint64_t quantile_ns(double share) const {
        uint64_t left = static_cast<uint64_t>(share * static_cast<double>(count_) + 0.999999);
        left = left == 0 ? 1 : left;
        for (std::size_t i = 0; i < counts_.size(); ++i) {
            if (counts_[i] >= left) {
                return lowest(i);
            }
            left -= counts_[i];
        }
        return max_ns_;
    }

private:
    static constexpr unsigned kStepBits = 7; // 128 steps from one power of two to the next
    static constexpr std::size_t kSteps = std::size_t{1} << kStepBits;
    static constexpr std::size_t kBuckets = (65 - kStepBits) * kSteps;

    static std::size_t bucket(uint64_t ns) {
        if (ns < kSteps) {
            return ns;
        }
        const auto shift = static_cast<unsigned>(std::bit_width(ns)) - 1 - kStepBits;
        return (shift + 1) * kSteps + ((ns >> shift) & (kSteps - 1));
    }
    static uint64_t lowest(std::size_t bucket) {
        if (bucket < kSteps) {
            return bucket;
        }
        return (kSteps + bucket % kSteps) << (bucket / kSteps - 1);
    }

    std::vector<uint64_t> counts_;
    uint64_t count_ = 0;
    uint64_t max_ns_ = 0;
};

} // namespace vorn_cli
