#pragma once

// What the live contenders work on: an instrument table, its price scaling and the topics.

#include "ExanicMdTypes.h"

#include <cstdint>
#include <memory>

namespace bench {

inline constexpr uint16_t kShfeTopic = 1000;
inline constexpr uint16_t kIneTopic = 5000;

struct Market {
    share table;
    PriceCalcInfo scale;
};

// A table of `instruments` books of five levels a side, all subscribed: SHFE numbers first, the
// rest INE's.
std::unique_ptr<Market> make_market(uint32_t instruments);

// Slot and wire number of the n-th instrument of such a table.
struct Address {
    uint16_t topic;
    uint32_t number;
    uint32_t slot;
};
Address address_of(uint32_t instrument, uint32_t instruments);

} // namespace bench
