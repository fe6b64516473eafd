#include "tools/vorn/record/writer_thread.h"

#include <chrono>
#include <csignal>
#include <pthread.h>
#include <sched.h>

namespace vorn_cli {

namespace {

void leave_cpu(int avoided) {
    cpu_set_t set;
    CPU_ZERO(&set);
    if (avoided < 0 || avoided >= CPU_SETSIZE || ::sched_getaffinity(0, sizeof(set), &set) != 0) {
        return;
    }
    CPU_CLR(static_cast<std::size_t>(avoided), &set);
    if (CPU_COUNT(&set) > 0) {
        ::sched_setaffinity(0, sizeof(set), &set);
    }
}

} // namespace

WriterThread::WriterThread(int avoided_cpu, std::function<bool()> work) : work_(std::move(work)) {
    thread_ = std::thread([this, avoided_cpu] {
        ::pthread_setname_np(::pthread_self(), "vorn-writer");
        sigset_t all; // signals are for the thread that runs the feed
        ::sigfillset(&all);
        ::pthread_sigmask(SIG_BLOCK, &all, nullptr);
        leave_cpu(avoided_cpu);
        while (true) {
            // Asked before looking: what was put in before stop() is seen by the look after it.
            const bool last = stopping_.load(std::memory_order_acquire);
            const bool worked = work_();
            if (!worked && last) {
                return;
            }
            if (!worked) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        }
    });
}

WriterThread::~WriterThread() {
    stop();
}

void WriterThread::stop() {
    stopping_.store(true, std::memory_order_release);
    if (thread_.joinable()) {
        thread_.join();
    }
}

} // namespace vorn_cli
