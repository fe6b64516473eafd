#pragma once

#include "tools/vorn/record/frame_ring.h"

#include <atomic>
#include <chrono>
#include <thread>

namespace vorn_cli {

// Puts an entry into the ring; when there is no room, waits for it or counts the entry as lost. One
// thread adds to `lost`.
inline void put_or_count(FrameRing& ring, uint32_t kind, uint64_t time_ns,
                         std::span<const char> bytes, bool wait, std::atomic<uint64_t>& lost) {
    while (!ring.push(kind, time_ns, bytes)) {
        if (!wait) {
            lost.store(lost.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
            return;
        }
        std::this_thread::sleep_for(std::chrono::microseconds(50));
    }
}

} // namespace vorn_cli
