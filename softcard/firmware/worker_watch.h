#pragma once

// Finds out that the thread which decodes raw frames has nothing left to do.

#include <chrono>
#include <cstdint>
#include <string_view>
#include <sys/types.h>
#include <vector>

namespace softcard {

// One look at a thread's "stat" and "syscall" files.
enum class ThreadState {
    kGone,    // no such thread any more, or of another name
    kBusy,    // runnable, or asleep in something that is part of its work
    kWaiting, // asleep until somebody signals a condition
    kAsleep,  // asleep, and what in cannot be read
};
// `syscall_text` is empty when the file cannot be read.
ThreadState judge_thread(std::string_view stat_text, std::string_view syscall_text);

// Asked once per poll of the raw path while both paths are held back.
class WorkerWatch {
public:
    // Whether this machine shows a process its own threads.
    static bool available();

    // Both paths are held from now on.
    void begin();

    // One poll: whether it is certain by now that the decoder is done and its owner wants more.
    bool wants_more();

private:
    using Clock = std::chrono::steady_clock;
    struct Worker {
        pid_t tid;
        int64_t cpu_ns;
    };

    void find_workers();
    bool sample(Clock::time_point now);
    bool look_at(Worker& worker, bool& unchanged, bool& certain) const;

    std::vector<Worker> workers_;
    Clock::time_point next_sample_{};
    Clock::time_point asleep_since_{};
    int asleep_samples_ = 0;
    int polls_since_idle_ = 0;
    bool idle_ = false;
};

} // namespace softcard
