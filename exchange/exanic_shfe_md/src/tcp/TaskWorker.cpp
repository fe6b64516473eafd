#include "tcp/TaskWorker.h"

#include <iostream>

#include <pthread.h>
#include <sched.h>

namespace {

// Frames come in bursts, and whoever queues them shares this thread's CPU: giving the CPU back
// before falling asleep lets the rest of a burst arrive without a wake-up for each frame.
constexpr int YIELDS_BEFORE_SLEEP = 2;

} // namespace

CThread::CThread() {
    try {
        worker = std::thread(&CThread::_Run, this);
    } catch (const std::exception& error) {
        // Carries on without a worker: tasks are queued and never run.
        std::cerr << "Failed to start thread: " << error.what() << std::endl;
    }
}

CThread::~CThread() {
    Join();
}

void CThread::Join() {
    {
        const std::lock_guard<std::mutex> lock(queueMutex);
        stop = true;
    }
    condition.notify_all();
    if (worker.joinable()) {
        try {
            worker.join();
        } catch (const std::exception& error) {
            std::cerr << "Failed to join thread: " << error.what() << std::endl;
        }
    }
}

void CThread::_Queue(Task&& task) {
    bool wake = false;
    {
        const std::lock_guard<std::mutex> lock(queueMutex);
        if (stop) {
            throw std::runtime_error("Enqueue on stopped CThread");
        }
        tasks.push_back(std::move(task));
        wake = std::exchange(sleeping, false);
    }
    if (wake) {
        condition.notify_one();
    }
}

void CThread::_Run() {
    pthread_setname_np(pthread_self(), "PktHdr");
    std::vector<Task> batch;
    for (;;) {
        {
            std::unique_lock<std::mutex> lock(queueMutex);
            for (int i = 0; i < YIELDS_BEFORE_SLEEP && !stop && tasks.empty(); ++i) {
                lock.unlock();
                sched_yield();
                lock.lock();
            }
            while (!stop && tasks.empty()) {
                sleeping = true;
                condition.wait(lock);
            }
            sleeping = false;
            if (tasks.empty()) {
                return;
            }
            batch.swap(tasks);
        }
        for (Task& task : batch) {
            task.Run();
            task.Reset(); // what it owned goes back before the next one runs
        }
        batch.clear();
    }
}
