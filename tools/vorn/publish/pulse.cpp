#include "tools/vorn/publish/pulse.h"

#include "ExanicMdMonitor.h"

#include <chrono>
#include <csignal>
#include <sched.h>

namespace vorn_cli {

namespace {

// Blocks every signal for the thread that is made meanwhile.
class SignalsBlocked {
public:
    SignalsBlocked() {
        sigset_t all;
        sigfillset(&all);
        ::pthread_sigmask(SIG_SETMASK, &all, &before_);
    }
    ~SignalsBlocked() { ::pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;

private:
    sigset_t before_;
};

void keep_off(int cpu) {
    cpu_set_t set;
    CPU_ZERO(&set);
    if (cpu < 0 || cpu >= CPU_SETSIZE || ::sched_getaffinity(0, sizeof(set), &set) != 0) {
        return;
    }
    CPU_CLR(static_cast<unsigned>(cpu), &set);
    if (CPU_COUNT(&set) > 0) {
        ::sched_setaffinity(0, sizeof(set), &set);
    }
}

} // namespace

Pulse::Pulse(vorn_bus::BusWriter& writer, uint64_t interval_ns, int feed_cpu)
    : writer_(writer), interval_ns_(interval_ns) {
    const SignalsBlocked blocked;
    thread_ = std::thread([this, feed_cpu] { run(feed_cpu); });
}

Pulse::~Pulse() {
    {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    over_.notify_one();
    thread_.join();
}

void Pulse::run(int feed_cpu) {
    keep_off(feed_cpu);
    std::unique_lock lock(mutex_);
    while (!stopping_) {
        beat();
        over_.wait_for(lock, std::chrono::nanoseconds(interval_ns_), [this] { return stopping_; });
    }
    beat();
}

void Pulse::beat() {
    vorn_md_counters_t counters;
    counters.size = sizeof(counters);
    if (vorn_md_counters(&counters) == 0) {
        writer_.beat(counters);
    }
}

} // namespace vorn_cli
