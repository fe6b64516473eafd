#pragma once

// Threads for connections, and what becomes of those for which there is none.

#include <httplib.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

namespace vorn_cli {

// Runs tasks on at most so many threads, made when no other is free. A task beyond that runs on the
// thread that brings it, where refusing() is true meanwhile: it must not wait.
class ConnectionThreads final : public httplib::TaskQueue {
public:
    explicit ConnectionThreads(std::size_t most) : most_(most) {}
    ~ConnectionThreads() override { shutdown(); }

    void enqueue(std::function<void()> task) override;
    void shutdown() override; // returns when every task has ended
    void on_idle() override;  // called now and then by the accepting thread

    static bool refusing();
    // Takes over the socket of a connection that was refused: it is closed some time after what was
    // sent, because a close with unread bytes would take the answer back. Accepting thread only.
    static void close_later(int socket);

private:
    // Whether a thread runs it: then it has been moved away.
    bool take(std::function<void()>& task);
    void work();

    const std::size_t most_;
    std::mutex mutex_;
    std::condition_variable ready_;
    std::deque<std::function<void()>> tasks_;
    std::vector<std::thread> threads_;
    std::size_t busy_ = 0; // threads with a task, and tasks that wait for one
    bool stopping_ = false;
};

} // namespace vorn_cli
