#pragma once

// A bus as a feed would write it, for tests of what looks at it.

#include "bus/bus_process.h"
#include "bus/bus_writer.h"
#include "tools/vorn/bus_view/feed_view.h"

#include <atomic>
#include <cstring>
#include <string>
#include <string_view>
#include <unistd.h>

namespace serve_test {

// A name that nobody else uses; its file is removed at the end.
class BusName {
public:
    BusName() {
        static std::atomic<int> count{0};
        name_ = "serve-test-" + std::to_string(::getpid()) + "-" + std::to_string(++count);
    }
    ~BusName() { vorn_bus::remove_bus(name_); }
    BusName(const BusName&) = delete;
    BusName& operator=(const BusName&) = delete;

    const std::string& name() const { return name_; }
    vorn_cli::FeedViewOptions view() const {
        vorn_cli::FeedViewOptions options;
        options.bus = name_;
        return options;
    }

private:
    std::string name_;
};

// Last price, traded volume, and a book of one level: a lot each at 99 and 101.
inline instrument record_of(std::string_view inst_id, double last, uint32_t volume) {
    instrument record{};
    std::memcpy(record.inst_id, inst_id.data(), inst_id.size());
    record.last_px = last;
    record.volume = volume;
    record.bid_px[0] = 99;
    record.bid_vol[0] = 1;
    record.ask_px[0] = 101;
    record.ask_vol[0] = 1;
    return record;
}

class WrittenBus {
public:
    explicit WrittenBus(const BusName& name) : writer_(options(name)) {
        counters_.size = sizeof(counters_);
        counters_.version = VORN_MD_COUNTERS_VERSION;
    }

    vorn_bus::BusWriter& writer() { return writer_; }
    void go_live() {
        counters_.phase = VORN_MD_PHASE_LIVE;
        counters_.phase_since_ns = vorn_bus::clock_ns(CLOCK_MONOTONIC);
        writer_.beat(counters_);
    }
    void gap(std::string_view inst_id, uint32_t slot, uint64_t count) {
        vorn_md_event_t event{};
        event.size = sizeof(event);
        event.type = VORN_MD_EVENT_GAP;
        event.time_ns = vorn_bus::clock_ns(CLOCK_MONOTONIC);
        event.phase = VORN_MD_PHASE_LIVE;
        event.slot = slot;
        event.count = count;
        std::memcpy(event.inst_id, inst_id.data(), inst_id.size());
        writer_.publish_event(event);
    }

private:
    static vorn_bus::WriterOptions options(const BusName& name) {
        vorn_bus::WriterOptions options;
        options.name = name.name();
        options.ring_records = 1024;
        return options;
    }

    vorn_bus::BusWriter writer_;
    vorn_md_counters_t counters_{};
};

} // namespace serve_test
