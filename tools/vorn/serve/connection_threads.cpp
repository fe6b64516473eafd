#include "tools/vorn/serve/connection_threads.h"

#include <sys/socket.h>
#include <system_error>
#include <unistd.h>

namespace vorn_cli {

namespace {

using Clock = std::chrono::steady_clock;

// Refused connections whose last bytes are on their way. Of the accepting thread alone.
struct Lingering {
    int socket;
    Clock::time_point until;
};
constexpr std::size_t kMostLingering = 256;
constexpr std::chrono::milliseconds kLinger{1000};

thread_local bool refusing_here = false;
thread_local std::deque<Lingering> lingering;

void close_drained(int socket) {
    char bytes[4096];
    for (int i = 0; i < 16 && ::recv(socket, bytes, sizeof(bytes), MSG_DONTWAIT) > 0; ++i) {
    }
    ::close(socket);
}

void close_due(std::size_t most) {
    const auto now = Clock::now();
    while (!lingering.empty() && (lingering.size() > most || lingering.front().until <= now)) {
        close_drained(lingering.front().socket);
        lingering.pop_front();
    }
}

} // namespace

bool ConnectionThreads::refusing() {
    return refusing_here;
}

void ConnectionThreads::close_later(int socket) {
    lingering.push_back({socket, Clock::now() + kLinger});
    close_due(kMostLingering);
}

void ConnectionThreads::on_idle() {
    close_due(kMostLingering);
}

void ConnectionThreads::enqueue(std::function<void()> task) {
    close_due(kMostLingering);
    refusing_here = !take(task);
    if (refusing_here) {
        task();
        refusing_here = false;
    } else {
        ready_.notify_one();
    }
}

bool ConnectionThreads::take(std::function<void()>& task) {
    const std::lock_guard lock(mutex_);
    if (busy_ >= most_ || stopping_) {
        return false;
    }
    if (busy_ == threads_.size()) {
        try {
            threads_.emplace_back([this] { work(); });
        } catch (const std::system_error&) {
            return false; // the system has no thread left: as if the bound were reached
        }
    }
    ++busy_;
    tasks_.push_back(std::move(task));
    return true;
}

void ConnectionThreads::work() {
    std::unique_lock lock(mutex_);
    for (;;) {
        ready_.wait(lock, [this] { return stopping_ || !tasks_.empty(); });
        if (tasks_.empty()) {
            return;
        }
        std::function<void()> task = std::move(tasks_.front());
        tasks_.pop_front();
        lock.unlock();
        task();
        task = nullptr;
        lock.lock();
        --busy_;
    }
}

void ConnectionThreads::shutdown() {
    close_due(0);
    {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    ready_.notify_all();
    for (std::thread& thread : threads_) {
        thread.join();
    }
    threads_.clear();
}

} // namespace vorn_cli
