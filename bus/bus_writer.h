#pragma once

// Writes a bus: one writer a name, held by a lock that ends with the process.
//
// Two threads write, each to memory of its own: the feed's thread calls publish(), publish_event()
// and refresh(); somebody else, who may sleep, calls beat() every heartbeat interval, so that
// readers can tell a feed without updates from a writer that has died. Neither waits for the other
// or for a reader; nothing of the two allocates, locks or enters the system.

#include "bus/bus_layout.h"

#include <cstdint>
#include <memory>
#include <string>

namespace vorn_bus {

struct WriterOptions {
    std::string name = kDefaultName; // or a path, with a slash in it
    uint64_t ring_records = 65536;   // a power of two from 1024 to 16 Mi; 384 bytes each
    uint64_t heartbeat_interval_ns = 100'000'000;
};

constexpr bool is_ring_size(uint64_t records) {
    return records >= 1024 && records <= 16u << 20 && (records & (records - 1)) == 0;
}

class BusWriter {
public:
    // Makes the file (mode 0640, all of its memory taken at once) and puts it in the place of one
    // whose writer has ended. Throws BusError, also when a writer of this name runs.
    explicit BusWriter(const WriterOptions& options);
    // Closes the bus; the file stays for late readers, until the next writer of the name.
    ~BusWriter();
    BusWriter(const BusWriter&) = delete;
    BusWriter& operator=(const BusWriter&) = delete;

    // --- Feed's thread.

    // An update of the feed: the slot of the table, then a ring record. `slot` is below 20480.
    void publish(const instrument& record, uint32_t slot, uint32_t flags = 0) noexcept;
    void publish_event(const vorn_md_event_t& event) noexcept;
    // Takes over the whole table: what is in use, and what was and is no longer. For the moment
    // after a snapshot, when most instruments have changed without an update.
    void refresh(const share& table) noexcept;

    // --- The thread that beats.

    void beat(const vorn_md_counters_t& counters) noexcept;

    const std::string& path() const { return path_; }
    uint64_t generation() const;
    uint64_t ring_head() const; // any thread

private:
    struct File;

    void store_slot(const instrument& record, uint32_t slot, uint64_t time_ns,
                    uint64_t ring_number) noexcept;
    RingRecord& begin_record() noexcept;
    void end_record(RingRecord& record) noexcept;

    std::string path_;
    std::unique_ptr<File> file_;
    Header* header_;
    Counters* counters_;
    Slot* table_;
    RingRecord* ring_;
    uint64_t ring_mask_;
    uint64_t head_ = 0; // of the feed's thread, who alone writes records
};

// Removes the file of a bus and its lock. For tests and for a name that is no longer used; a writer
// that runs goes on without being seen.
void remove_bus(const std::string& name);

} // namespace vorn_bus
