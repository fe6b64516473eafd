#pragma once

// The processor's counter, fenced: nothing before it is still under way, nothing behind it has
// begun.

#include <chrono>
#include <cstdint>
#include <x86intrin.h>

namespace bench {

inline uint64_t fenced_now() {
    _mm_lfence();
    const uint64_t now = __rdtsc();
    _mm_lfence();
    return now;
}

inline double ticks_per_ns() {
    const auto begin = std::chrono::steady_clock::now();
    const uint64_t first = fenced_now();
    while (std::chrono::steady_clock::now() - begin < std::chrono::milliseconds(50)) {
    }
    const uint64_t last = fenced_now();
    const std::chrono::duration<double, std::nano> elapsed =
        std::chrono::steady_clock::now() - begin;
    return static_cast<double>(last - first) / elapsed.count();
}

} // namespace bench
