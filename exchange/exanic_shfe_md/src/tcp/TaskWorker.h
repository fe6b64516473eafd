#ifndef TASK_WORKER_H
#define TASK_WORKER_H

#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <queue>
#include <stdexcept>
#include <thread>
#include <tuple>
#include <type_traits>
#include <utility>

// One worker thread, named "PktHdr", and its queue of tasks, run one at a time in the order in
// which they were queued. Tasks queued before Join are all executed before it returns.
//
// When the thread cannot be started, standard error says so and tasks are queued but never run.
// The queue has no bound.
class CThread {
public:
    CThread();
    ~CThread();
    CThread(const CThread&) = delete;
    CThread& operator=(const CThread&) = delete;

    // Queues a call and returns the future of its result; an exception of the call ends up there.
    // Throws std::runtime_error once Join has been called. Any thread.
    template <typename Function, typename... Arguments>
    auto Enqueue(Function&& function, Arguments&&... arguments)
        -> std::future<std::invoke_result_t<std::decay_t<Function>, std::decay_t<Arguments>...>>;

    // Lets the worker run what is queued and waits for its end.
    void Join();

private:
    void _Run();

    std::thread worker;
    std::queue<std::function<void()>, std::deque<std::function<void()>>> tasks;
    std::mutex queueMutex;
    std::condition_variable condition;
    bool stop = false;
};

template <typename Function, typename... Arguments>
auto CThread::Enqueue(Function&& function, Arguments&&... arguments)
    -> std::future<std::invoke_result_t<std::decay_t<Function>, std::decay_t<Arguments>...>> {
    using Result = std::invoke_result_t<std::decay_t<Function>, std::decay_t<Arguments>...>;

    // Shared, because the queue holds copyable callables and a packaged task can only be moved.
    auto task = std::make_shared<std::packaged_task<Result()>>(
        [call = std::decay_t<Function>(std::forward<Function>(function)),
         bound = std::tuple<std::decay_t<Arguments>...>(
             std::forward<Arguments>(arguments)...)]() mutable {
            return std::apply(
                [&call](auto&... values) {
                    return std::invoke(std::move(call), std::move(values)...);
                },
                bound);
        });
    std::future<Result> result = task->get_future();
    {
        const std::lock_guard<std::mutex> lock(queueMutex);
        if (stop) {
            throw std::runtime_error("Enqueue on stopped CThread");
        }
        tasks.emplace([task] { (*task)(); });
    }
    condition.notify_one();
    return result;
}

#endif
