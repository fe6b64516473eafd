#pragma once

// A bus that is written from what a tap hears, so that everything that reads a bus runs on this
// host as beside the feed: vorn top, vorn serve, bus readers of one's own.
//
// Its times are those at which this host heard, and its counters are the tap's: updates, and what
// was repeated or missing. Its phase is LIVE while the tap is connected and has caught up.

#include "bus/bus_writer.h"
#include "tools/vorn/fanout/payload.h"
#include "tools/vorn/tap/tap_order.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

namespace vorn_cli {

class TapBus {
public:
    // Throws Failure.
    explicit TapBus(const std::string& name);
    ~TapBus();
    TapBus(const TapBus&) = delete;
    TapBus& operator=(const TapBus&) = delete;

    // One thread calls these.
    void put(const Outgoing& message);
    void set_live(bool live);
    void set_counts(const TapOrder& order);

private:
    static constexpr uint64_t kBeatNs = 100'000'000;
    void beat();
    void put_event(vorn_md_event_t event);

    vorn_bus::BusWriter writer_;
    uint32_t phase_ = VORN_MD_PHASE_SNAPSHOT;
    uint64_t last_update_ns_ = 0;

    std::mutex mutex_; // of what is below
    std::condition_variable over_;
    bool stopping_ = false;
    vorn_md_counters_t counters_{};
    std::thread thread_;
};

} // namespace vorn_cli
