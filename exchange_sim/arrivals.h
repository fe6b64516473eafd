#pragma once

// When something happens, and to which instrument. Orders come in clusters: an order calls forth
// others, most of them at once and in the same instrument, some later, some in another contract of
// the same product. In terms of intensities this is a self- and mutually-exciting process, each
// arrival raising the intensity of its instrument for a while; it is drawn here as the equivalent
// branching process, in which independent first arrivals have children, and these again.

#include "exchange_sim/instruments.h"
#include "exchange_sim/rng.h"

#include <vector>

namespace exchange_sim {

struct Arrival {
    uint64_t time_ns = 0;
    uint32_t instrument = 0; // index into the catalogue
    bool is_first = false;   // not called forth by another
};

class Arrivals {
public:
    Arrivals(const std::vector<Instrument>& catalogue, uint64_t start_ns, uint32_t rate, Rng rng);

    uint64_t next_time() const;
    Arrival pop();

private:
    // Ties are broken, so that no library's way of keeping a heap shows in the order.
    struct Later {
        bool operator()(const Arrival& left, const Arrival& right) const {
            return left.time_ns != right.time_ns ? left.time_ns > right.time_ns
                                                 : left.instrument > right.instrument;
        }
    };

    uint32_t pick_instrument();
    uint32_t pick_related(uint32_t instrument);
    void add_children(const Arrival& parent);

    Rng rng_;
    uint64_t mean_gap_ns_; // between first arrivals, in 1/1024 ns
    Arrival next_first_;
    std::vector<Arrival> children_; // heap, earliest first
    // Alias table: entry i stands for itself below its threshold and for its alias above.
    std::vector<uint32_t> threshold_;
    std::vector<uint32_t> alias_;
    std::vector<uint16_t> product_of_;
    std::vector<std::vector<uint32_t>> by_product_; // most active first
};

} // namespace exchange_sim
