#pragma once

// Records that say by themselves whether they are whole: each of their 42 words follows from the
// first, which holds a number, and the last is the sum of them all.

#include "ExanicMdMonitor.h"
#include "ExanicMdTypes.h"

#include <array>
#include <cstdint>
#include <cstring>
#include <string>
#include <unistd.h>

namespace support {

using RecordWords = std::array<uint64_t, sizeof(instrument) / 8>;

inline instrument numbered_record(uint64_t number) {
    RecordWords words;
    words[0] = number << 8 | 'T'; // the identifier is not empty
    uint64_t sum = words[0];
    for (std::size_t i = 1; i + 1 < words.size(); ++i) {
        words[i] = words[0] * (2 * i + 1);
        sum ^= words[i];
    }
    words.back() = sum;
    instrument record;
    std::memcpy(&record, words.data(), sizeof(record));
    return record;
}

// The number of a whole record; 0 for a torn one.
inline uint64_t number_of(const instrument& record) {
    uint64_t first = 0;
    std::memcpy(&first, &record, sizeof(first));
    const instrument whole = numbered_record(first >> 8);
    return std::memcmp(&whole, &record, sizeof(record)) == 0 ? first >> 8 : 0;
}

// Counters that are whole when all of these are the same.
inline vorn_md_counters_t numbered_counters(uint64_t number) {
    vorn_md_counters_t counters{};
    counters.size = sizeof(counters);
    counters.version = VORN_MD_COUNTERS_VERSION;
    counters.frames = counters.updates = counters.stale = counters.snapshot_wipes = number;
    counters.last_gap.time_ns = number;
    return counters;
}
inline bool are_whole(const vorn_md_counters_t& counters) {
    const uint64_t number = counters.frames;
    return counters.updates == number && counters.stale == number &&
           counters.snapshot_wipes == number && counters.last_gap.time_ns == number;
}

// A name for a bus that no other test has.
inline std::string own_bus_name() {
    static int count = 0;
    return "test." + std::to_string(::getpid()) + "." + std::to_string(++count);
}

} // namespace support
