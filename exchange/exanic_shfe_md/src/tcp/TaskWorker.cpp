#include "tcp/TaskWorker.h"

#include <iostream>

#include <pthread.h>

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

void CThread::_Run() {
    pthread_setname_np(pthread_self(), "PktHdr");
    for (;;) {
        std::function<void()> task;
        {
            std::unique_lock<std::mutex> lock(queueMutex);
            condition.wait(lock, [this] { return stop || !tasks.empty(); });
            if (tasks.empty()) {
                return;
            }
            task = std::move(tasks.front());
            tasks.pop();
        }
        task();
    }
}
