// Rows of a bus.

#include "bus/bus_reader.h"
#include "tools/vorn/convert/row_sources.h"
#include "tools/vorn/exit_code.h"
#include "tools/vorn/run_flag.h"

#include <chrono>
#include <fmt/format.h>
#include <thread>

namespace vorn_cli {

namespace {

using vorn_bus::WriterState;

constexpr auto kPause = std::chrono::milliseconds(1);
constexpr auto kFlushInterval = std::chrono::milliseconds(100);

class BusRows {
public:
    BusRows(const vorn_bus::BusReader& bus, RowTaker& taker)
        : taker_(taker), cursor_(bus.follow_oldest()),
          to_realtime_ns_(bus.to_realtime_ns(bus.header().clock_monotonic_ns) -
                          bus.header().clock_monotonic_ns) {
        time_ns_ = bus.header().clock_monotonic_ns + to_realtime_ns_;
    }

    // Everything that has been written, up to this record. True when there was something.
    bool take(uint64_t last) {
        const uint64_t before = cursor_.position();
        vorn_bus::RingRecord record;
        while (!taker_.done() && cursor_.position() < last && cursor_.next(record)) {
            if (record.number != next_) {
                put_lost(record.number);
            }
            next_ = record.number + 1;
            put(record);
        }
        return cursor_.position() != before;
    }

    uint64_t lost() const { return cursor_.lost(); }

private:
    void put(const vorn_bus::RingRecord& record) {
        const bool event = (record.flags & vorn_bus::kFlagEvent) != 0;
        ResearchRow row = event ? event_row(record.event) : update_row(record.record, record.slot);
        if ((record.flags & vorn_bus::kFlagReplay) != 0) {
            row.flags |= kRowReplay;
        }
        time_ns_ = record.receive_time_ns + to_realtime_ns_;
        row.receive_time_ns = time_ns_;
        row.sequence = record.number;
        taker_.put_numbered(row);
    }
    // Also for what was written before the ring that there is now begins.
    void put_lost(uint64_t number) {
        ResearchRow row = event_row(RowEvent::kLost);
        row.count = number - next_;
        row.receive_time_ns = time_ns_;
        row.sequence = number - 1;
        taker_.put_numbered(row);
    }

    RowTaker& taker_;
    vorn_bus::RingCursor cursor_;
    uint64_t to_realtime_ns_; // one difference of the clocks for all: times do not jump
    uint64_t time_ns_ = 0;
    uint64_t next_ = 1; // number of the record that comes next if nothing is lost
};

} // namespace

SourceEnd rows_of_bus(const std::string& name, bool follow, RowTaker& taker) try {
    const vorn_bus::BusReader bus(name);
    const RunFlag run;
    BusRows rows(bus, taker);
    SourceEnd end;
    if (!follow) {
        rows.take(bus.ring_head());
    }
    auto flushed = std::chrono::steady_clock::now();
    while (follow && !taker.done()) {
        if (!run.running()) {
            end.interrupted = true;
            break;
        }
        // Asked first: what a writer has written before its end is read behind it.
        const WriterState state = bus.writer_state();
        const bool over = state != WriterState::kAlive && state != WriterState::kStalled;
        const bool some = rows.take(bus.ring_head());
        if (over && !some) {
            if (state != WriterState::kClosed) {
                end.remark = fmt::format("the writer of {} is {}; the rows end there", bus.path(),
                                         vorn_bus::writer_state_name(state));
            }
            break;
        }
        const auto now = std::chrono::steady_clock::now();
        if (now - flushed >= kFlushInterval) {
            taker.flush();
            flushed = now;
        }
        if (!some) {
            std::this_thread::sleep_for(kPause);
        }
    }
    end.lost = rows.lost() != 0;
    return end;
} catch (const vorn_bus::BusError& error) {
    throw Failure(kFailed, error.what());
}

} // namespace vorn_cli
