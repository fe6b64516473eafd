#pragma once

// Between a source of rows and their file: chooses what is wanted and counts.

#include "tools/vorn/convert/row_filter.h"
#include "tools/vorn/convert/row_sink.h"
#include "tools/vorn/progress.h"

#include <array>
#include <cstdint>
#include <string>
#include <unordered_set>

namespace vorn_cli {

struct RowCounts {
    uint64_t rows = 0; // in the file
    uint64_t updates = 0;
    std::array<uint64_t, kRowEvents> events{}; // by RowEvent
    uint64_t first_time_ns = 0;                // earliest and latest receive time of the rows
    uint64_t last_time_ns = 0;
    uint64_t all_events() const { return rows - updates; }
    uint64_t events_of(RowEvent event) const { return events[static_cast<std::size_t>(event)]; }
};

class RowTaker {
public:
    RowTaker(const RowFilter& filter, RowSink& sink, Progress& progress)
        : filter_(filter), sink_(sink), progress_(progress) {}

    // The next row of the source; numbered here unless the source has numbers of its own.
    void put(ResearchRow row) {
        row.sequence = ++sequence_;
        put_numbered(row);
    }
    void put_numbered(const ResearchRow& row);
    // Nothing more is wanted.
    bool done() const { return done_; }
    bool limit_reached() const { return filter_.limit_reached(); }

    void flush() { sink_.flush(); }
    const RowCounts& counts() const { return counts_; }
    std::size_t instruments() const { return instruments_.size(); }

private:
    RowFilter filter_;
    RowSink& sink_;
    Progress& progress_;
    RowCounts counts_;
    std::unordered_set<std::string> instruments_; // identifiers that had an update
    std::string inst_id_;                         // kept for its memory
    uint64_t sequence_ = 0;
    bool done_ = false;
};

} // namespace vorn_cli
