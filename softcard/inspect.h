#pragma once

// What tests and tools may ask of the software card beyond the seven calls.

#include "softcard/registers/register_map.h"

#include <cstddef>
#include <cstdint>
#include <exanic/fifo_rx.h>

namespace softcard {

// Stores that the model has seen to a word of the filter tables' page (1024 to 2047).
uint64_t stores_seen(const exanic_t* exanic, uint32_t word);

// Whether the instrument's filter entry is 1.
bool filter_entry(const exanic_t* exanic, Exchange exchange, uint32_t instrument_no);

// Whole time stamp of the frame that the buffer's reader got last, nanoseconds since the Unix
// epoch; 0 before the first. For the thread that polls the buffer.
uint64_t frame_time_ns(const exanic_rx_t* rx);

std::size_t open_devices();

// Closes every device whatever references are left, so that the next acquire of a name opens its
// source anew. Pointers got before are dead. For programs that run a feed several times: a feed
// that restarts keeps references that nobody gives back.
void close_all_devices();

} // namespace softcard
