#pragma once

// The market that the evidence programs show the feed: two exchanges, three instruments, early
// segments, changes cached during the snapshot, a gap and a second cycle.

#include "feed_card.h"

#include <string>

namespace evidence {

// A cycle whose last live change leaves a number out. It caches 3 buffers, so that 3 of its 8
// updates stay silent.
Cycle gap_cycle();
// The same without the gap.
Cycle quiet_cycle();
// A cycle whose gap comes while the cached changes are replayed.
Cycle replay_gap_cycle();
// A cycle whose first snapshot fails its price check; the second one is that of quiet_cycle().
Cycle rejected_then_quiet_cycle();

// What tells the rejected snapshot from the good one: the change number of every instrument in it.
inline constexpr uint32_t kRejectedChangeNo = 900;

// A configuration of both feeds and every instrument, bound to a CPU that this process may use;
// `more` goes behind it.
std::string configuration(const std::string& more = "");

} // namespace evidence
