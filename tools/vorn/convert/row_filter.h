#pragma once

// Which rows of a source are wanted.

#include "tools/vorn/convert/research_row.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace vorn_cli {

// A moment, or a time of day at the exchanges (UTC+8).
struct TimeBound {
    enum class Kind : uint8_t { kNone, kMoment, kTimeOfDay };
    Kind kind = Kind::kNone;
    uint64_t ns = 0; // since the Unix epoch, or since midnight

    // "1768438800000000000", or "09:30", "09:30:15", "09:30:15.250"; empty: none. Throws
    // Failure(kUsage) naming the option.
    static TimeBound parse(const char* option, const std::string& text);
};

struct RowFilterOptions {
    TimeBound from;
    TimeBound to;
    std::string instruments; // as in the configuration's insts; empty or "all": every one
    uint64_t limit = 0;      // rows at most; 0: no limit
};

class RowFilter {
public:
    // Throws Failure(kUsage) when an item of `instruments` can match nothing.
    explicit RowFilter(const RowFilterOptions& options);

    // Whether this row is wanted, which then counts for the limit. A row at `from` is, one at `to`
    // is not; times of day of which `to` is the earlier one enclose midnight. Events are of every
    // instrument: they tell what the rows of one are worth, too.
    bool wants(const ResearchRow& row);

    // Nothing more will be wanted: the limit is reached, or the time of this row is so far behind
    // `to`, by a minute, that no source is so much out of order.
    bool is_done(const ResearchRow& row) const;

    bool limit_reached() const { return limit_ != 0 && taken_ == limit_; }

private:
    bool in_time(uint64_t time_ns) const;
    bool of_instrument(const instrument& record) const;

    TimeBound from_;
    TimeBound to_;
    std::vector<std::string> items_;
    uint64_t limit_;
    uint64_t taken_ = 0;
};

// Time of day at the exchanges, nanoseconds since midnight.
uint64_t exchange_time_of_day_ns(uint64_t time_ns);

} // namespace vorn_cli
