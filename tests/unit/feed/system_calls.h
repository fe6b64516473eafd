#pragma once

// This program's own clock_gettime, posix_memalign, shmat, usleep, sched_yield and the operator
// new[] that does not throw stand in front of the C and C++ libraries'.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <sys/types.h>

namespace system_calls {

// Back to the C library's own answers; forgets what was recorded.
void reset();

// CLOCK_REALTIME answers this many seconds (and no nanoseconds) until it is set again.
void set_wall_clock(int64_t seconds);

// posix_memalign refuses requests of exactly `size` bytes.
void refuse_allocation(std::size_t size);
// What posix_memalign (the instrument table) and operator new[] (the cache) were asked for at one
// size: the table's or the cache's. Other sizes are not kept.
struct Allocation {
    void* block = nullptr; // the last one handed out
    std::size_t alignment = 0;
    int requests = 0;
};
Allocation allocation_of(std::size_t size);
// The last block of that size, for a test to give back with free (the table) or operator delete[]
// (the cache); null when there is none. Forgets it.
void* take_block(std::size_t size);

// shmat fails with this error number; 0: it does not.
void refuse_shmat(int error);

// Called by usleep on whichever thread it runs, before the real one.
void on_sleep(std::function<void(useconds_t)> hook);

// Calls of sched_yield by the thread that calls this function.
uint64_t& yields_of_this_thread();

} // namespace system_calls
