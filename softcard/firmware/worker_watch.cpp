// When is it certain that the feed wants another snapshot round?
//
// The feed polls the raw path on one thread and hands each frame to a worker thread named "PktHdr",
// which decodes it later. Nobody tells the card what came of it. But two things are known:
//
// - The feed wakes the worker before it polls again. So, seen from within a poll, a worker that
//   sleeps on its condition has handled every frame delivered so far; one with something to do is
//   runnable, or busy, or blocked somewhere else.
// - The feed looks at the outcome before each poll. So a poll that begins after the worker went
//   idle means that the feed was not satisfied. The poll within which idleness is found may have
//   begun before; two more are waited for.
//
// Asleep is not enough: a worker blocked in a write to a full pipe sleeps, and so does one that
// waits for a lock held by such a thread. Where the kernel shows what a thread sleeps in, only the
// futex operation of a condition counts (a contended lock uses another one). Where it does not,
// more samples over a longer time have to agree. In both cases the worker's processor time must not
// have moved between the samples, all of them taken on the polling thread: on a loaded machine, or
// with every thread on one core, they lie further apart and the answer is late but not wrong.
//
// All this costs little more than a millisecond, at round ends only.

#include "softcard/firmware/worker_watch.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <linux/futex.h>
#include <memory>
#include <string>
#include <sys/syscall.h>
#include <unistd.h>

namespace softcard {

namespace {

constexpr std::string_view kWorkerName = "PktHdr";
constexpr const char* kTasks = "/proc/self/task";
constexpr auto kSamplePeriod = std::chrono::microseconds(150);
constexpr int kPollsAfterIdle = 2;

// How long a worker must be seen asleep: when what it sleeps in can be read, and when not.
constexpr int kSamplesWhenKnown = 8;
constexpr auto kSpanWhenKnown = std::chrono::microseconds(1000);
constexpr int kSamplesWhenUnknown = 24;
constexpr auto kSpanWhenUnknown = std::chrono::microseconds(5000);

// Reads a small file whole; empty when that fails.
std::string_view read_file(pid_t tid, const char* name, std::array<char, 1024>& buffer) {
    std::array<char, 64> path;
    std::snprintf(path.data(), path.size(), "%s/%d/%s", kTasks, static_cast<int>(tid), name);
    const int file = open(path.data(), O_RDONLY | O_CLOEXEC);
    if (file < 0) {
        return {};
    }
    const ssize_t size = read(file, buffer.data(), buffer.size());
    close(file);
    return size > 0 ? std::string_view(buffer.data(), static_cast<std::size_t>(size))
                    : std::string_view();
}

// Takes the next word from the front of `text`; base 0 accepts 0x.
uint64_t take_number(std::string_view& text) {
    const std::size_t begin = std::min(text.find_first_not_of(' '), text.size());
    const std::size_t end = std::min(text.find_first_of(" \n", begin), text.size());
    std::string_view word = text.substr(begin, end - begin);
    text.remove_prefix(end);
    int base = 10;
    if (word.starts_with("0x")) {
        word.remove_prefix(2);
        base = 16;
    }
    uint64_t value = 0;
    std::from_chars(word.data(), word.data() + word.size(), value, base);
    return value;
}

// Whether a sleeping thread's system call is a wait on a condition: futex with the bitset wait that
// the C library uses for conditions, and not the plain wait of its locks.
bool is_condition_wait(std::string_view syscall_text) {
    if (syscall_text.empty() || syscall_text[0] < '0' || syscall_text[0] > '9') {
        return false; // "running", or -1 for a thread blocked outside of a system call
    }
    if (take_number(syscall_text) != SYS_futex) {
        return false;
    }
    take_number(syscall_text); // address
    const auto operation = static_cast<int>(take_number(syscall_text));
    return (operation & FUTEX_CMD_MASK) == FUTEX_WAIT_BITSET;
}

// The processor time of one thread of this process, or -1 when it is gone.
int64_t cpu_time_ns(pid_t tid) {
    // How the kernel numbers the scheduler's clock of a thread.
    const auto clock = static_cast<clockid_t>(~static_cast<unsigned>(tid) << 3 | 6u);
    timespec time{};
    if (clock_gettime(clock, &time) != 0) {
        return -1;
    }
    return static_cast<int64_t>(time.tv_sec) * 1'000'000'000 + time.tv_nsec;
}

struct CloseDirectory {
    void operator()(DIR* directory) const { closedir(directory); }
};
using Directory = std::unique_ptr<DIR, CloseDirectory>;

} // namespace

// "4711 (PktHdr) S 1 ...": the name may hold anything, the state follows its last parenthesis.
ThreadState judge_thread(std::string_view stat_text, std::string_view syscall_text) {
    const auto open_at = stat_text.find('(');
    const auto close_at = stat_text.rfind(')');
    if (open_at == std::string_view::npos || close_at == std::string_view::npos ||
        close_at < open_at || close_at + 2 >= stat_text.size() ||
        stat_text.substr(open_at + 1, close_at - open_at - 1) != kWorkerName) {
        return ThreadState::kGone;
    }
    const char state = stat_text[close_at + 2];
    if (state == 'Z' || state == 'X') {
        return ThreadState::kGone;
    }
    if (state != 'S') {
        return ThreadState::kBusy;
    }
    if (syscall_text.empty()) {
        return ThreadState::kAsleep;
    }
    return is_condition_wait(syscall_text) ? ThreadState::kWaiting : ThreadState::kBusy;
}

bool WorkerWatch::available() {
    std::array<char, 1024> buffer;
    return !read_file(static_cast<pid_t>(syscall(SYS_gettid)), "stat", buffer).empty();
}

void WorkerWatch::begin() {
    workers_.clear();
    next_sample_ = {};
    asleep_samples_ = 0;
    polls_since_idle_ = 0;
    idle_ = false;
}

bool WorkerWatch::wants_more() {
    if (idle_) {
        return ++polls_since_idle_ >= kPollsAfterIdle;
    }
    const auto now = Clock::now();
    if (now >= next_sample_) {
        idle_ = sample(now);
        next_sample_ = Clock::now() + kSamplePeriod;
    }
    return false;
}

void WorkerWatch::find_workers() {
    const Directory tasks(opendir(kTasks));
    if (tasks == nullptr) {
        return;
    }
    std::array<char, 1024> buffer;
    while (const dirent* const entry = readdir(tasks.get())) {
        const auto tid = static_cast<pid_t>(std::strtol(entry->d_name, nullptr, 10));
        if (tid > 0 && judge_thread(read_file(tid, "stat", buffer), {}) != ThreadState::kGone) {
            workers_.push_back({tid, -1});
        }
    }
}

// One look at every worker; whether they have been seen idle for long enough.
bool WorkerWatch::sample(Clock::time_point now) {
    if (workers_.empty()) {
        find_workers();
    }
    bool all_asleep = !workers_.empty();
    bool unchanged = true;
    bool certain = true;
    for (Worker& worker : workers_) {
        all_asleep = look_at(worker, unchanged, certain) && all_asleep;
    }
    std::erase_if(workers_, [](const Worker& worker) { return worker.tid == 0; });
    if (!all_asleep) {
        asleep_samples_ = 0;
        return false;
    }
    if (!unchanged || asleep_samples_ == 0) {
        asleep_samples_ = 1;
        asleep_since_ = now;
        return false;
    }
    ++asleep_samples_;
    const auto span = now - asleep_since_;
    return certain ? asleep_samples_ >= kSamplesWhenKnown && span >= kSpanWhenKnown
                   : asleep_samples_ >= kSamplesWhenUnknown && span >= kSpanWhenUnknown;
}

bool WorkerWatch::look_at(Worker& worker, bool& unchanged, bool& certain) const {
    std::array<char, 1024> stat_buffer;
    std::array<char, 1024> syscall_buffer;
    const ThreadState state = judge_thread(read_file(worker.tid, "stat", stat_buffer),
                                           read_file(worker.tid, "syscall", syscall_buffer));
    const int64_t cpu_ns = cpu_time_ns(worker.tid);
    if (state == ThreadState::kGone || cpu_ns < 0) {
        worker.tid = 0;
        return false;
    }
    unchanged = unchanged && cpu_ns == worker.cpu_ns;
    worker.cpu_ns = cpu_ns;
    certain = certain && state == ThreadState::kWaiting;
    return state == ThreadState::kWaiting || state == ThreadState::kAsleep;
}

} // namespace softcard
