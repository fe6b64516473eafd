#pragma once

// The stream of the live path: decode buffers that all apply, half of them header + one price
// change + one deal summary (72 bytes), half header + two price changes (56 bytes); updates,
// inserts that shift the side and deletes that refill it, over instruments in random order.

#include "bench/harness/stand_in_card.h"

#include <cstdint>

namespace bench {

// `messages` decode buffers for a table of make_market(instruments).
FrameList make_live_stream(uint32_t instruments, uint32_t messages, uint64_t seed = 7);

// The same instruments, but every message has `fields` price changes (24 + 16 * fields bytes).
FrameList make_wide_stream(uint32_t instruments, uint32_t messages, uint32_t fields,
                           uint64_t seed = 7);

} // namespace bench
