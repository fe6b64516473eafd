#pragma once

// What the card knows about time. Which card that is, the link line decides: see
// card_time_softcard.cpp and card_time_exanic.cpp.

#include <cstdint>
#include <exanic/fifo_rx.h>
#include <string>

namespace vorn_cli {

// Time of the frame that the buffer's reader has just got, nanoseconds since the Unix epoch. For
// the thread that polls the buffer; some 20 ns.
uint64_t frame_time_ns(const exanic_rx_t* rx);

// Whether the card behind this device text moves only as it is read, so that a reader may take its
// time.
bool works_in_step(const std::string& device);

// CLOCK_REALTIME; no system call.
uint64_t time_of_receipt_ns();

} // namespace vorn_cli
