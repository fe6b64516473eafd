#pragma once

// Reads a bus into lanes: every update and event of its ring, and the values of instruments that a
// snapshot changed without an update.
//
// When the lanes are full it stops reading; the ring then is further room. What the ring overwrites
// meanwhile is lost and counted, and the newest value of what was hit is sent behind it. A bus that
// is not there is waited for; a writer that takes over is followed.

#include "bus/bus_reader.h"
#include "tools/vorn/fanout/lanes.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vorn_cli {

enum class SourceState : uint8_t { kAbsent, kFollowing, kClosed, kDead };
const char* source_state_name(SourceState state);

struct SourceCounts {
    uint64_t updates = 0;      // taken off the ring
    uint64_t events = 0;       // taken off the ring, or seen of the writer
    uint64_t values = 0;       // taken off the table
    uint64_t dropped = 0;      // ring records that were overwritten before they were read
    uint64_t stale_events = 0; // that lay in the ring when it was opened and are too old to be sent
};

class BusSource {
public:
    // Throws BusError when the name cannot be one. An event that a bus holds when it is opened is
    // passed over when it is older than `event_age_ns`.
    BusSource(std::string name, uint64_t event_age_ns);

    // Takes in what there is room for. True when it took something.
    bool poll(Lanes& lanes, uint64_t now_ns);

    SourceState state() const { return state_; }
    const std::string& problem() const { return problem_; } // of an absent bus
    const SourceCounts& counts() const { return counts_; }
    uint64_t behind() const { return cursor_ ? cursor_->behind() : 0; } // records still in the ring
    // The writer has ended, and all it wrote has been taken in.
    bool exhausted() const { return exhausted_; }

private:
    // One look at the writer costs some microseconds; this often is enough.
    static constexpr uint64_t kLookNs = 50'000'000;

    bool open(Lanes& lanes, uint64_t now_ns);
    void look_at_writer(Lanes& lanes, uint64_t now_ns);
    bool read_ring(Lanes& lanes, uint64_t now_ns);
    bool read_table(Lanes& lanes, uint64_t now_ns);
    void take_update(const vorn_bus::RingRecord& record, Lanes& lanes, uint64_t now_ns);
    void take_event(const vorn_bus::RingRecord& record, Lanes& lanes, uint64_t now_ns);
    void tell(uint32_t type, uint64_t count, Lanes& lanes, uint64_t now_ns);
    void note_lost(Lanes& lanes, uint64_t now_ns);
    uint64_t to_realtime(uint64_t time_ns) const {
        return time_ns + static_cast<uint64_t>(realtime_offset_ns_);
    }

    const std::string name_;
    const uint64_t event_age_ns_;
    SourceState state_ = SourceState::kAbsent;
    std::string problem_;
    SourceCounts counts_;
    bool exhausted_ = false;

    std::unique_ptr<vorn_bus::BusReader> reader_;
    std::optional<vorn_bus::RingCursor> cursor_; // of reader_
    uint64_t next_look_ns_ = 0;
    int64_t realtime_offset_ns_ = 0; // to be added to CLOCK_MONOTONIC
    uint64_t lost_ = 0;              // of cursor_
    uint64_t opened_at_ = 0;         // ring number of the newest record when it was opened
    // The table is read when the ring has been read up to here.
    std::optional<uint64_t> table_due_;
    uint32_t table_slot_ = 0; // the next one, when the lanes were full in the middle
    std::vector<std::optional<uint32_t>> change_no_; // that was pushed last, by slot
};

} // namespace vorn_cli
