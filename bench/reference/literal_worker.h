#pragma once

// The hand-over to a worker thread as it is usually written: a packaged task behind a shared
// pointer, wrapped in a std::function, one notification for each.

#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <thread>

namespace bench {

class LiteralWorker {
public:
    LiteralWorker() : thread_([this] { run(); }) {}
    ~LiteralWorker() {
        {
            const std::lock_guard lock(mutex_);
            stop_ = true;
        }
        condition_.notify_all();
        thread_.join();
    }

    template <typename Function>
    std::future<void> enqueue(Function&& function) {
        auto task = std::make_shared<std::packaged_task<void()>>(std::forward<Function>(function));
        auto result = task->get_future();
        {
            const std::lock_guard lock(mutex_);
            tasks_.emplace_back([task] { (*task)(); });
        }
        condition_.notify_one();
        return result;
    }

private:
    void run() {
        for (;;) {
            std::function<void()> task;
            {
                std::unique_lock lock(mutex_);
                condition_.wait(lock, [this] { return stop_ || !tasks_.empty(); });
                if (tasks_.empty()) {
                    return;
                }
                task = std::move(tasks_.front());
                tasks_.pop_front();
            }
            task();
        }
    }

    std::mutex mutex_;
    std::condition_variable condition_;
    std::deque<std::function<void()>> tasks_;
    bool stop_ = false;
    std::thread thread_;
};

} // namespace bench
