#pragma once

// Stand-ins for platform calls, defined in this program in front of the C library's: each passes
// on to the real one until a test says otherwise.

#include <cstddef>
#include <ctime>

namespace tcp_test {

// While one lives, CLOCK_REALTIME stands still at what it says. Any thread may read and set it.
class StoppedWallClock {
public:
    explicit StoppedWallClock(time_t seconds);
    ~StoppedWallClock();
    StoppedWallClock(const StoppedWallClock&) = delete;
    StoppedWallClock& operator=(const StoppedWallClock&) = delete;

    void set(time_t seconds);
};

// While one lives, no thread can be started.
class NoNewThreads {
public:
    NoNewThreads();
    ~NoNewThreads();
    NoNewThreads(const NoNewThreads&) = delete;
    NoNewThreads& operator=(const NoNewThreads&) = delete;
};

// From here on no thread can be joined.
void refuse_joins();

// A sanitizer brings an allocator of its own, in front of which none can be put.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define TCP_TEST_ALLOCATION_STUB 0
#else
#define TCP_TEST_ALLOCATION_STUB 1

// While one lives, this thread gets no memory for blocks of `size` bytes and more.
class NoMemoryFor {
public:
    explicit NoMemoryFor(std::size_t size);
    ~NoMemoryFor();
    NoMemoryFor(const NoMemoryFor&) = delete;
    NoMemoryFor& operator=(const NoMemoryFor&) = delete;
};
#endif

} // namespace tcp_test
