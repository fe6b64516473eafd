#pragma once

// This program's own get_nprocs, sched_setaffinity and usleep stand in front of the C library's.

#include <cstddef>
#include <functional>
#include <optional>
#include <sched.h>
#include <sys/types.h>
#include <vector>

namespace system_calls {

struct AffinityCall {
    pid_t pid;
    std::size_t size;
    std::vector<int> cpus; // CPUs in the set
};

// Back to the C library's own answers; forgets what was recorded.
void reset();
// get_nprocs answers `count`.
void set_processors(int count);
// sched_setaffinity answers `result` and changes nothing.
void set_affinity_result(int result);
// Called by usleep, which then returns at once.
void on_sleep(std::function<void(useconds_t)> hook);

const std::vector<AffinityCall>& affinity_calls();

} // namespace system_calls
