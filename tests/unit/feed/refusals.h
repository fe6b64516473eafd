#pragma once

// The system refuses memory or a thread, to any thread of this program.

#include <cstddef>

// A sanitizer brings an allocator of its own, in front of which none can be put.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define FEED_TEST_ALLOCATION_STUB 0
#else
#define FEED_TEST_ALLOCATION_STUB 1
#endif

namespace refusals {

// While one lives, blocks of `smallest` to `largest` bytes are not to be had.
class NoMemoryFor {
public:
    NoMemoryFor(std::size_t smallest, std::size_t largest);
    ~NoMemoryFor();
    NoMemoryFor(const NoMemoryFor&) = delete;
    NoMemoryFor& operator=(const NoMemoryFor&) = delete;
};

// While one lives, no thread can be started.
class NoNewThreads {
public:
    NoNewThreads();
    ~NoNewThreads();
    NoNewThreads(const NoNewThreads&) = delete;
    NoNewThreads& operator=(const NoNewThreads&) = delete;
};

} // namespace refusals
