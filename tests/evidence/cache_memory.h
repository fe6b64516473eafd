#pragma once

// In front of the C++ library: the memory of the feed's cache of decode buffers. All of its 200 MB
// lie on the same 2 MB, so that filling them, which is most of what a short run takes, stays within
// the processor's cache. A script must cache less than that.

#include <atomic>
#include <cstddef>

namespace evidence {

// Asked before the cache is handed out; null: it always is.
extern std::atomic<bool (*)(std::size_t size)> cache_refused;

} // namespace evidence
