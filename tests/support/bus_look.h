#pragma once

// Opens a bus and reads all that there is to read of it, believing nothing.

#include "bus/bus_reader.h"

#include <string>

namespace support {

// The refusal, or an empty text when the file could be opened.
inline std::string look_through(const std::string& path) {
    try {
        const vorn_bus::BusReader bus(path);
        vorn_bus::Slot slot;
        for (uint32_t i = 0; i < 64;
             ++i) { // some at both ends: a slot that stays locked takes time
            (void)bus.read_slot(i, slot);
            (void)bus.read_slot(INSTRUMENT_SLOT_CNT - 1 - i, slot);
        }
        vorn_bus::Counters counters;
        (void)bus.read_counters(counters);
        (void)bus.writer_state();
        (void)bus.heartbeat_age_ns();
        (void)bus.to_realtime_ns(1);
        vorn_bus::RingRecord record;
        for (vorn_bus::RingCursor cursor : {bus.follow(), bus.follow_oldest()}) {
            for (int i = 0; i < 3000 && cursor.next(record); ++i) {
            }
            (void)cursor.behind();
        }
        return {};
    } catch (const vorn_bus::BusError& error) {
        return error.what();
    }
}

} // namespace support
