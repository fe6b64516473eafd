#pragma once

// A simulated session as a list of frames, and what a filter makes of it.

#include "faults/changes.h"
#include "faults/fault_filter.h"
#include "faults/snapshot_streams.h"
#include "wirekit/ethernet.h"

#include <string>
#include <vector>

namespace faults::testing {

struct Sent {
    uint64_t timestamp_ns = 0;
    wirekit::Bytes bytes;
    bool reader_lapped = false;
    bool operator==(const Sent&) const = default;

    wirekit::ParsedFrame parsed() const { return wirekit::parse_frame(bytes); }
    std::optional<Change> change() const { return change_of(parsed()); }
};
using Stream = std::vector<Sent>;

// Forty instruments of both feeds, about 4000 changes in 0.2 seconds, five rounds; made once.
const Stream& session();
// Seconds into the session, as a time stamp.
uint64_t at_seconds(double seconds);
// When the first rounds of both feeds are over.
uint64_t first_rounds_end();

FaultFilter::Source source_of(const Stream& stream);
std::vector<FaultSpec> parsed(const std::string& faults);
Stream filtered(const Stream& stream, const std::string& faults, uint64_t seed = 1);

// How two streams differ, frame by frame: what both have, in order, is left out.
struct Difference {
    Stream lost;                 // only in the first
    Stream added;                // only in the second
    std::vector<std::size_t> at; // where in the second the added ones stand
};
Difference difference(const Stream& before, const Stream& after);

bool is_snapshot_segment(const Sent& frame);

} // namespace faults::testing
