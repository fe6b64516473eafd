#include "softcard/firmware/worker_watch.h"

#include <atomic>
#include <barrier>
#include <condition_variable>
#include <gtest/gtest.h>
#include <mutex>
#include <pthread.h>
#include <string>
#include <thread>
#include <unistd.h>

namespace softcard {
namespace {

struct StateCase {
    const char* name;
    const char* stat_text;
    const char* syscall_text;
    ThreadState state;
};

// clang-format off
const StateCase kStates[] = {
    {"ConditionWait",     "77 (PktHdr) S 1 2 3\n", "202 0x7f00 0x189 0x0 0x0 0x0 0xffffffff 0x7f 0x7e\n", ThreadState::kWaiting},
    {"MonotonicWait",     "77 (PktHdr) S 1 2 3\n", "202 0x7f00 0x89 0x0 0x0 0x0 0xffffffff 0x7f 0x7e\n",  ThreadState::kWaiting},
    {"LockWait",          "77 (PktHdr) S 1 2 3\n", "202 0x7f00 0x80 0x2 0x0 0x0 0x0 0x7f 0x7e\n",         ThreadState::kBusy},
    {"Write",             "77 (PktHdr) S 1 2 3\n", "1 0x1 0x7f00 0x10 0x0 0x0 0x0 0x7f 0x7e\n",          ThreadState::kBusy},
    {"WakingUp",          "77 (PktHdr) S 1 2 3\n", "running\n",                                          ThreadState::kBusy},
    {"OutsideOfCalls",    "77 (PktHdr) S 1 2 3\n", "-1 0x7f 0x7e\n",                                     ThreadState::kBusy},
    {"Runnable",          "77 (PktHdr) R 1 2 3\n", "running\n",                                          ThreadState::kBusy},
    {"Disk",              "77 (PktHdr) D 1 2 3\n", "1 0x1 0x7f00 0x10 0x0 0x0 0x0 0x7f 0x7e\n",          ThreadState::kBusy},
    {"Stopped",           "77 (PktHdr) T 1 2 3\n", "202 0x7f00 0x189 0x0 0x0 0x0 0x0 0x7f 0x7e\n",        ThreadState::kBusy},
    {"Unreadable",        "77 (PktHdr) S 1 2 3\n", "",                                                   ThreadState::kAsleep},
    {"UnreadableRunning", "77 (PktHdr) R 1 2 3\n", "",                                                   ThreadState::kBusy},
    {"Zombie",            "77 (PktHdr) Z 1 2 3\n", "",                                                   ThreadState::kGone},
    {"OtherName",         "77 (feed) S 1 2 3\n",   "202 0x7f00 0x189 0x0 0x0 0x0 0x0 0x7f 0x7e\n",        ThreadState::kGone},
    {"NameWithinName",    "77 (a (PktHdr) S) S 1", "202 0x7f00 0x189 0x0 0x0 0x0 0x0 0x7f 0x7e\n",        ThreadState::kGone},
    {"Nothing",           "",                      "",                                                   ThreadState::kGone},
    {"CutShort",          "77 (PktHdr)",           "",                                                   ThreadState::kGone},
};
// clang-format on

TEST(WorkerWatch, ReadsWhatTheKernelSaysOfAThread) {
    for (const StateCase& row : kStates) {
        EXPECT_EQ(judge_thread(row.stat_text, row.syscall_text), row.state) << row.name;
    }
}

// A thread of the worker's name that runs what it is given and waits on a condition otherwise.
class Worker {
public:
    Worker()
        : thread_([this] {
              pthread_setname_np(pthread_self(), "PktHdr");
              run();
          }) {}
    ~Worker() {
        {
            const std::lock_guard lock(mutex_);
            stop_ = true;
        }
        condition_.notify_all();
        thread_.join();
    }
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    void give(std::function<void()> task) {
        {
            const std::lock_guard lock(mutex_);
            task_ = std::move(task);
        }
        condition_.notify_one();
    }

private:
    void run() {
        std::unique_lock lock(mutex_);
        while (true) {
            condition_.wait(lock, [this] { return stop_ || task_; });
            if (!task_) {
                return;
            }
            const auto task = std::exchange(task_, nullptr);
            lock.unlock();
            task();
            lock.lock();
        }
    }

    std::mutex mutex_;
    std::condition_variable condition_;
    std::function<void()> task_;
    bool stop_ = false;
    std::thread thread_;
};

// Polls until the watch is certain. Ends only then: the test's own time limit is the bound.
void poll_until_certain(WorkerWatch& watch) {
    while (!watch.wants_more()) {
        std::this_thread::yield();
    }
}

// Polls for a while in which a watch that is wrong would have made up its mind many times over.
bool stays_uncertain(WorkerWatch& watch) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(40);
    while (std::chrono::steady_clock::now() < end) {
        if (watch.wants_more()) {
            return false;
        }
    }
    return true;
}

TEST(WorkerWatch, IsAvailableHere) {
    EXPECT_TRUE(WorkerWatch::available());
}

TEST(WorkerWatch, NeverDecidesWithoutAWorker) {
    WorkerWatch watch;
    watch.begin();
    EXPECT_TRUE(stays_uncertain(watch));
}

TEST(WorkerWatch, DecidesOnceTheWorkerWaits) {
    Worker worker;
    WorkerWatch watch;
    for (int round = 0; round < 3; ++round) {
        watch.begin();
        poll_until_certain(watch);
    }
}

TEST(WorkerWatch, WaitsWhileTheWorkerWorks) {
    Worker worker;
    std::atomic<bool> go_on{true};
    std::barrier started(2);
    worker.give([&] {
        started.arrive_and_wait();
        while (go_on) {
        }
    });
    started.arrive_and_wait();
    WorkerWatch watch;
    watch.begin();
    EXPECT_TRUE(stays_uncertain(watch));
    go_on = false;
    poll_until_certain(watch);
}

TEST(WorkerWatch, IsNotFooledByAWorkerBlockedInAWrite) {
    Worker worker;
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    std::barrier started(2);
    worker.give([&] {
        started.arrive_and_wait();
        const std::string text(1 << 20, 'x'); // more than a pipe holds
        EXPECT_EQ(write(ends[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
    });
    started.arrive_and_wait();
    WorkerWatch watch;
    watch.begin();
    EXPECT_TRUE(stays_uncertain(watch));
    std::string sink(1 << 16, ' ');
    for (std::size_t got = 0; got < 1 << 20;) {
        got += static_cast<std::size_t>(read(ends[0], sink.data(), sink.size()));
    }
    poll_until_certain(watch);
    close(ends[0]);
    close(ends[1]);
}

TEST(WorkerWatch, IsNotFooledByAWorkerWaitingForALock) {
    Worker worker;
    std::mutex lock;
    lock.lock();
    std::barrier started(2);
    worker.give([&] {
        started.arrive_and_wait();
        lock.lock();
        lock.unlock();
    });
    started.arrive_and_wait();
    WorkerWatch watch;
    watch.begin();
    EXPECT_TRUE(stays_uncertain(watch));
    lock.unlock();
    poll_until_certain(watch);
}

TEST(WorkerWatch, FindsAWorkerThatStartsLate) {
    WorkerWatch watch;
    watch.begin();
    EXPECT_TRUE(stays_uncertain(watch));
    Worker worker;
    poll_until_certain(watch);
}

TEST(WorkerWatch, NeedsEveryWorkerToWait) {
    Worker idle;
    Worker busy;
    std::atomic<bool> go_on{true};
    std::barrier started(2);
    busy.give([&] {
        started.arrive_and_wait();
        while (go_on) {
        }
    });
    started.arrive_and_wait();
    WorkerWatch watch;
    watch.begin();
    EXPECT_TRUE(stays_uncertain(watch));
    go_on = false;
    poll_until_certain(watch);
}

TEST(WorkerWatch, AsksForTwoPollsAfterIdleness) {
    Worker worker;
    WorkerWatch watch;
    watch.begin();
    // However far apart the polls are, the answer cannot come before a sample has told anything.
    int polls = 0;
    while (!watch.wants_more()) {
        ++polls;
        const auto next = std::chrono::steady_clock::now() + std::chrono::milliseconds(2);
        while (std::chrono::steady_clock::now() < next) {
        }
    }
    EXPECT_GE(polls, 8 + 1);
}

} // namespace
} // namespace softcard
