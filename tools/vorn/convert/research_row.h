#pragma once

// A row of a research file: an update of one instrument with its whole record, or an event of the
// feed. Rows have one size, so that row n of a file lies at a place that can be computed; .npy
// files hold them byte for byte. Little-endian.

#include "ExanicMdMonitor.h"
#include "ExanicMdTypes.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace vorn_cli {

// Bits of ResearchRow::flags.
inline constexpr uint16_t kRowEvent = 1;  // an event; the record is empty but for inst_id
inline constexpr uint16_t kRowReplay = 2; // an update of the changes cached behind a snapshot
// The source was a CSV recording: receive_time_ns is the update time, prices have two decimals, and
// levels 6 to 10 are empty.
inline constexpr uint16_t kRowFromCsv = 4;

// Values of ResearchRow::event. The first five are those of the feed; the others say that the
// source of the rows did not have everything.
enum class RowEvent : uint16_t {
    kNone = 0,
    kPhase = VORN_MD_EVENT_PHASE,       // phase, previous_phase
    kGap = VORN_MD_EVENT_GAP,           // slot, inst_id, expected, received; count: gaps so far
    kRestart = VORN_MD_EVENT_RESTART,   // count: restarts so far
    kRound = VORN_MD_EVENT_ROUND,       // feed; count: instrument numbers of its exchange
    kOverflow = VORN_MD_EVENT_OVERFLOW, // count: overflows of the card's ring so far
    kLost = 6, // count: records of a bus that were overwritten before they were read
    kSkip = 7, // inst_id, expected, received: change numbers that a CSV recording does not have
};
inline constexpr uint16_t kRowEvents = 8;
const char* row_event_name(RowEvent event); // "phase", "gap", ...

inline constexpr uint32_t kNoRowSlot = 0xffffffff;

struct ResearchRow {
    uint64_t receive_time_ns; //  0: since the Unix epoch; of an event: of the frame before it
    uint64_t sequence;        //  8: place in the source, from 1; a selection leaves holes
    uint16_t flags;           // 16: kRow...
    uint16_t event;           // 18: RowEvent
    uint32_t slot;            // 20: of the feed's table; kNoRowSlot: not known, or no instrument
    uint16_t phase;           // 24: events: of the feed, VORN_MD_PHASE_...
    uint16_t previous_phase;  // 26
    uint32_t expected;        // 28: events: change number that should have come
    uint32_t received;        // 32: events: the one that came
    uint32_t feed;            // 36: events: VORN_MD_FEED_...
    uint64_t count;           // 40: events
    instrument record;        // 48: as the feed's callback got it
};
static_assert(sizeof(ResearchRow) == 384);
static_assert(offsetof(ResearchRow, event) == 18 && offsetof(ResearchRow, slot) == 20);
static_assert(offsetof(ResearchRow, expected) == 28 && offsetof(ResearchRow, feed) == 36);
static_assert(offsetof(ResearchRow, count) == 40 && offsetof(ResearchRow, record) == 48);

inline bool is_event(const ResearchRow& row) {
    return (row.flags & kRowEvent) != 0;
}

// A member of the row as files name it; the record's members stand beside the others.
struct RowColumn {
    enum class Type : uint8_t { kText, kU16, kU32, kI32, kU64, kF64 };
    const char* name;
    Type type;
    uint16_t offset; // bytes in the row
    uint16_t count;  // elements of an array, 1 otherwise; bytes for kText
};
std::span<const RowColumn> row_columns(); // in the order of their offsets, without holes

ResearchRow update_row(const instrument& record, uint32_t slot);
ResearchRow event_row(RowEvent event);
ResearchRow event_row(const vorn_md_event_t& event); // without time and sequence

} // namespace vorn_cli
