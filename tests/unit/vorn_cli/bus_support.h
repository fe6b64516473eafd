#pragma once

// A bus of its own for a test, and what is written to it.

#include "bus/bus_writer.h"
#include "tests/support/temp_dir.h"

#include <cstring>
#include <memory>
#include <string>

namespace bus_support {

inline instrument record_of(const std::string& inst_id, uint32_t change_no = 1) {
    instrument record{};
    inst_id.copy(reinterpret_cast<char*>(record.inst_id), sizeof(record.inst_id) - 1);
    record.change_no = change_no;
    record.last_px = 100.5;
    record.volume = 10 * change_no;
    for (int i = 0; i < 5; ++i) {
        record.bid_px[i] = 100 - i;
        record.bid_vol[i] = 5 + i;
        record.ask_px[i] = 101 + i;
        record.ask_vol[i] = 7 + i;
    }
    return record;
}

inline vorn_md_counters_t counters_of(uint32_t phase, uint64_t since_ns, uint64_t last_update_ns) {
    vorn_md_counters_t counters{};
    counters.size = sizeof(counters);
    counters.version = VORN_MD_COUNTERS_VERSION;
    counters.phase = phase;
    counters.phase_since_ns = since_ns;
    counters.last_update_ns = last_update_ns;
    return counters;
}

inline vorn_md_event_t event_of(uint32_t type, uint64_t time_ns, uint32_t phase) {
    vorn_md_event_t event{};
    event.size = sizeof(event);
    event.type = type;
    event.time_ns = time_ns;
    event.phase = phase;
    return event;
}

// The file lies in a directory of the test's own.
class TestBus {
public:
    explicit TestBus(uint64_t ring_records = 1024) : ring_records_(ring_records) {}

    std::string name() const { return (directory_.path() / "test.bus").string(); }
    // A writer, in the place of the one before.
    vorn_bus::BusWriter& open() {
        writer_.reset();
        writer_ = std::make_unique<vorn_bus::BusWriter>(
            vorn_bus::WriterOptions{name(), ring_records_, 100'000'000});
        return *writer_;
    }
    void close() { writer_.reset(); }
    vorn_bus::BusWriter& writer() { return *writer_; }

private:
    support::TempDir directory_;
    uint64_t ring_records_;
    std::unique_ptr<vorn_bus::BusWriter> writer_;
};

} // namespace bus_support
