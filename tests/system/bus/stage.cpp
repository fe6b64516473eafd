// Writer and readers of a bus as processes of their own.
//
//   bus_stage write NAME [RING]          publishes numbered records as fast as it can, an event as
//                                        every 1000th; closes the bus on SIGTERM
//   bus_stage ring NAME                  follows the ring until the bus closes
//   bus_stage late NAME                  the same, but looks only when it has been lapped
//   bus_stage table NAME                 reads the whole table and the counters over and over
//   bus_stage layout                     the offsets of every member, a line each
//
// Readers print "ready" when they are in place, then what they saw as "name value" pairs in a line
// and fail when a record was torn or did not stand where its number belongs.

#include "bus/bus_reader.h"
#include "bus/bus_writer.h"
#include "tests/support/bus_records.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <thread>

namespace {

using vorn_bus::BusReader;
using vorn_bus::SlotResult;
using Clock = std::chrono::steady_clock;

constexpr uint64_t kEventEvery = 1000;
constexpr std::chrono::seconds kPatience{60};

uint32_t slot_of(uint64_t number) {
    return static_cast<uint32_t>(number % INSTRUMENT_SLOT_CNT);
}

volatile std::sig_atomic_t g_running = 1;

int write(const std::string& name, uint64_t ring) {
    std::signal(SIGTERM, [](int) { g_running = 0; });
    constexpr uint64_t kBeatNs = 5'000'000;
    vorn_bus::BusWriter writer({name, ring, kBeatNs});
    std::atomic<bool> running{true};
    std::thread pulse([&] {
        for (uint64_t i = 1; running.load(); ++i) {
            writer.beat(support::numbered_counters(i));
            // Often enough to meet the readers in the middle of it, seldom enough to be on time.
            std::this_thread::sleep_for(std::chrono::microseconds(i % 50 == 0 ? 2000 : 20));
        }
    });
    uint64_t number = 0;
    while (g_running != 0) {
        for (int i = 0; i < 256; ++i) {
            ++number;
            if (number % kEventEvery == 0) {
                vorn_md_event_t event{};
                event.size = sizeof(event);
                event.type = VORN_MD_EVENT_RESTART;
                event.count = number;
                writer.publish_event(event);
            } else {
                writer.publish(support::numbered_record(number), slot_of(number));
            }
        }
    }
    running = false;
    pulse.join();
    std::printf("written %llu\n", static_cast<unsigned long long>(number));
    return 0;
}

BusReader open_when_there(const std::string& name) {
    const auto until = Clock::now() + kPatience;
    while (true) {
        try {
            return BusReader(name);
        } catch (const vorn_bus::BusError&) {
            if (Clock::now() > until) {
                throw;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
}

bool is_over(const BusReader& bus) {
    const vorn_bus::WriterState state = bus.writer_state();
    return state != vorn_bus::WriterState::kAlive && state != vorn_bus::WriterState::kStalled;
}

void say_ready() {
    std::printf("ready 1\n");
    std::fflush(stdout);
}

int follow_ring(const std::string& name, bool late) {
    const BusReader bus = open_when_there(name);
    vorn_bus::RingCursor cursor = bus.follow();
    const uint64_t first = cursor.position();
    say_ready();
    uint64_t taken = 0;
    uint64_t torn = 0;
    uint64_t jumped = 0; // what the numbers say was lost
    uint64_t last = first;
    vorn_bus::RingRecord record;
    for (bool over = false; !over;) {
        over = is_over(bus); // what comes behind this is read too
        for (int i = 0; i < 100'000 && cursor.next(record); ++i) {
            const bool event = (record.flags & vorn_bus::kFlagEvent) != 0;
            const uint64_t number = event ? record.event.count : support::number_of(record.record);
            const uint32_t slot = event ? vorn_bus::kNoSlot : slot_of(number);
            torn += number != record.number || record.slot != slot ||
                            event != (number % kEventEvery == 0)
                        ? 1
                        : 0;
            jumped += record.number - last - 1;
            last = record.number;
            ++taken;
            over = false;
        }
        while (late && cursor.behind() <= bus.ring_records() && !is_over(bus)) {
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    }
    std::printf("first %llu taken %llu lost %llu laps %llu torn %llu head %llu\n",
                static_cast<unsigned long long>(first), static_cast<unsigned long long>(taken),
                static_cast<unsigned long long>(cursor.lost()),
                static_cast<unsigned long long>(cursor.laps()),
                static_cast<unsigned long long>(torn),
                static_cast<unsigned long long>(bus.ring_head()));
    const bool sums = taken + cursor.lost() == bus.ring_head() - first &&
                      jumped + (bus.ring_head() - last) == cursor.lost();
    return torn == 0 && sums ? 0 : 3;
}

int read_table(const std::string& name) {
    const BusReader bus = open_when_there(name);
    say_ready();
    uint64_t read = 0;
    uint64_t torn = 0;
    uint64_t busy = 0;
    uint64_t beats = 0;
    vorn_bus::Slot slot;
    for (bool over = false; !over;) {
        over = is_over(bus);
        for (uint32_t i = 0; i < BusReader::slots(); ++i) {
            const SlotResult result = bus.read_slot(i, slot);
            busy += result == SlotResult::kBusy ? 1 : 0;
            if (result == SlotResult::kFilled) {
                const uint64_t number = support::number_of(slot.record);
                torn += number == 0 || slot_of(number) != i || number != slot.ring_number ? 1 : 0;
                ++read;
            }
            vorn_bus::Counters counters;
            if (i % 16 == 0 && bus.read_counters(counters) == SlotResult::kFilled) {
                torn += support::are_whole(counters.counters) ? 0 : 1;
                ++beats;
            }
        }
    }
    std::printf("taken %llu torn %llu busy %llu counters %llu\n",
                static_cast<unsigned long long>(read), static_cast<unsigned long long>(torn),
                static_cast<unsigned long long>(busy), static_cast<unsigned long long>(beats));
    return torn == 0 ? 0 : 3;
}

void member(const char* record, const char* name, std::size_t offset, std::size_t size) {
    std::printf("%s %s %zu %zu\n", record, name, offset, size);
}

#define MEMBER(Record, name)                                                                       \
    member(#Record, #name, offsetof(vorn_bus::Record, name), sizeof(vorn_bus::Record::name))

int print_layout() {
    MEMBER(Header, magic);
    MEMBER(Header, version);
    MEMBER(Header, header_size);
    MEMBER(Header, file_size);
    MEMBER(Header, generation);
    MEMBER(Header, counters_offset);
    MEMBER(Header, counters_size);
    MEMBER(Header, record_size);
    MEMBER(Header, table_offset);
    MEMBER(Header, table_slots);
    MEMBER(Header, slot_size);
    MEMBER(Header, ring_offset);
    MEMBER(Header, ring_records);
    MEMBER(Header, ring_record_size);
    MEMBER(Header, writer_pid);
    MEMBER(Header, writer_start_ticks);
    MEMBER(Header, writer_pid_namespace);
    MEMBER(Header, heartbeat_interval_ns);
    MEMBER(Header, clock_monotonic_ns);
    MEMBER(Header, clock_realtime_ns);
    MEMBER(Header, state);
    MEMBER(Header, heartbeat_ns);
    MEMBER(Header, ring_head);
    MEMBER(Counters, sequence);
    MEMBER(Counters, time_ns);
    MEMBER(Counters, realtime_ns);
    MEMBER(Counters, counters);
    MEMBER(Slot, sequence);
    MEMBER(Slot, receive_time_ns);
    MEMBER(Slot, ring_number);
    MEMBER(Slot, record);
    MEMBER(RingRecord, number);
    MEMBER(RingRecord, receive_time_ns);
    MEMBER(RingRecord, slot);
    MEMBER(RingRecord, flags);
    MEMBER(RingRecord, record);
    MEMBER(RingRecord, event);
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    const std::string what = argc > 1 ? argv[1] : "";
    const std::string name = argc > 2 ? argv[2] : "";
    try {
        if (what == "write" && argc > 2) {
            return write(name, argc > 3 ? std::strtoull(argv[3], nullptr, 10) : 1024);
        }
        if ((what == "ring" || what == "late") && argc > 2) {
            return follow_ring(name, what == "late");
        }
        if (what == "table" && argc > 2) {
            return read_table(name);
        }
        if (what == "layout") {
            return print_layout();
        }
    } catch (const std::exception& error) {
        std::fprintf(stderr, "bus_stage: %s\n", error.what());
        return 1;
    }
    std::fprintf(stderr, "bus_stage: see the head of stage.cpp\n");
    return 2;
}
