#pragma once

// Faults in a stream of frames. Pulls whole Ethernet frames from a source and gives them on with
// faults applied: frames lost, repeated, moved, damaged or added. Everything else stays as it is.
// Checksums are right unless the fault is that they are not; time stamps never fall; the same
// source, faults and seed give the same frames. Memory has a bound.

#include "faults/fault_spec.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <span>
#include <vector>

namespace faults {

struct FilteredFrame {
    uint64_t timestamp_ns = 0;
    std::span<const uint8_t> bytes; // valid until the next frame is asked for
    bool reader_lapped = false;     // the card's readers have lost frames in front of this one
};

class FaultFilter {
public:
    // Fills in a frame (time stamp and bytes), or returns false when there is none any more.
    using Source = std::function<bool(FilteredFrame& frame)>;

    FaultFilter(Source source, const std::vector<FaultSpec>& faults, uint64_t seed);
    ~FaultFilter();
    FaultFilter(const FaultFilter&) = delete;
    FaultFilter& operator=(const FaultFilter&) = delete;

    // The next frame; false at the end, and then always.
    bool next(FilteredFrame& frame);

private:
    struct Chain;
    std::unique_ptr<Chain> chain_;
};

} // namespace faults
