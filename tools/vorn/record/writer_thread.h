#pragma once

// The thread that takes what the feed's threads put into rings and brings it to disk. It looks
// again every millisecond, so that nobody has to wake it, and stays off the feed's CPU where the
// machine has another one.

#include <atomic>
#include <functional>
#include <thread>

namespace vorn_cli {

class WriterThread {
public:
    // `work` is called until it returns false, again and again; it must not throw. `avoided_cpu` is
    // the feed's, -1 for none. Started before the feed binds its thread: a thread that is started
    // later inherits the one CPU.
    WriterThread(int avoided_cpu, std::function<bool()> work);
    ~WriterThread(); // stop()
    WriterThread(const WriterThread&) = delete;
    WriterThread& operator=(const WriterThread&) = delete;

    // Once nothing is put in any more: waits until all of it was worked off.
    void stop();

private:
    std::function<bool()> work_;
    std::atomic<bool> stopping_{false};
    std::thread thread_;
};

} // namespace vorn_cli
