#pragma once

// Beats for a bus while the feed runs: the feed's own thread polls and cannot, because a feed to
// which nothing comes calls nobody.

#include "bus/bus_writer.h"

#include <condition_variable>
#include <mutex>
#include <thread>

namespace vorn_cli {

// A thread that every interval reads the feed's counters and beats. It keeps off the feed's CPU
// where the process has another. Every signal is left to the other threads.
class Pulse {
public:
    Pulse(vorn_bus::BusWriter& writer, uint64_t interval_ns, int feed_cpu);
    // Beats once more, so that the bus ends with the last counters.
    ~Pulse();
    Pulse(const Pulse&) = delete;
    Pulse& operator=(const Pulse&) = delete;

private:
    void run(int feed_cpu);
    void beat();

    vorn_bus::BusWriter& writer_;
    const uint64_t interval_ns_;
    std::mutex mutex_;
    std::condition_variable over_;
    bool stopping_ = false;
    std::thread thread_;
};

} // namespace vorn_cli
