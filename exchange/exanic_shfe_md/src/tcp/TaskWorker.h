#ifndef TASK_WORKER_H
#define TASK_WORKER_H

#include "tcp/Task.h"

#include <condition_variable>
#include <functional>
#include <future>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

// One worker thread, named "PktHdr", and its queue of tasks, run one at a time in the order in
// which they were queued. Tasks queued before Join are all executed before it returns.
//
// The worker takes all that is queued at once and runs it without the lock; it is woken only when
// it sleeps. So a burst of tasks costs one wake-up, and queueing behind a busy worker costs none.
// Once Enqueue or Post has returned, the worker is awake or has been woken.
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

    // The same for a call whose result nobody waits for: allocates nothing when the callable is
    // small. An exception of the call is lost.
    template <typename Function>
    void Post(Function&& function) {
        _Queue(Task([call = std::decay_t<Function>(std::forward<Function>(function))]() mutable {
            try {
                call();
            } catch (...) { // as a future that nobody looks at
            }
        }));
    }

    // Lets the worker run what is queued and waits for its end.
    void Join();

private:
    void _Queue(Task&& task);
    void _Run();

    std::thread worker;
    std::vector<Task> tasks;
    std::mutex queueMutex;
    std::condition_variable condition;
    bool sleeping = false; // the worker waits for a task
    bool stop = false;
};

template <typename Function, typename... Arguments>
auto CThread::Enqueue(Function&& function, Arguments&&... arguments)
    -> std::future<std::invoke_result_t<std::decay_t<Function>, std::decay_t<Arguments>...>> {
    using Result = std::invoke_result_t<std::decay_t<Function>, std::decay_t<Arguments>...>;

    std::packaged_task<Result()> task([call =
                                           std::decay_t<Function>(std::forward<Function>(function)),
                                       bound = std::tuple<std::decay_t<Arguments>...>(
                                           std::forward<Arguments>(arguments)...)]() mutable {
        return std::apply(
            [&call](auto&... values) { return std::invoke(std::move(call), std::move(values)...); },
            bound);
    });
    std::future<Result> result = task.get_future();
    _Queue(Task(std::move(task)));
    return result;
}

#endif
