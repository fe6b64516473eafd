#pragma once

// Calls that publish an update on a bus, each fenced and timed alone, at the rate of a busy market.

#include "bench/harness/fenced_clock.h"
#include "bus/bus_writer.h"

#include <algorithm>
#include <cstdint>
#include <vector>

namespace bench {

// The times of `updates` calls in nanoseconds, sorted, for `instruments` instruments in turn, one
// every `ns_apart`. `scale` is ticks_per_ns().
inline std::vector<double> publish_times(vorn_bus::BusWriter& writer, double scale,
                                         uint32_t updates, double ns_apart, uint32_t instruments) {
    std::vector<double> times(updates);
    instrument record{};
    record.inst_id[0] = 'x';
    const uint64_t begin = fenced_now();
    for (uint32_t n = 0; n < updates; ++n) {
        const auto due = begin + static_cast<uint64_t>(n * ns_apart * scale);
        while (fenced_now() < due) {
        }
        record.change_no = n;
        const uint64_t before = fenced_now();
        writer.publish(record, n % instruments);
        times[n] = static_cast<double>(fenced_now() - before) / scale;
    }
    std::sort(times.begin(), times.end());
    return times;
}

} // namespace bench
