#pragma once

// What those who trade do: given that something happens in an instrument, which order it is.
//
// Each product has a level that wanders and is drawn back; every contract's fair price follows it,
// a future fully, an option by its delta, a spread not at all. Orders are placed near the touch and
// taken where the price is wrong, so that prices follow the fair price through the book. Each side
// is kept near the instrument's number of resting orders: the fuller it is, the more is cancelled.

#include "exchange_sim/market.h"
#include "exchange_sim/rng.h"

#include <vector>

namespace exchange_sim {

class OrderFlow {
public:
    OrderFlow(const Market& market, Rng rng);

    // Fills the books before the session starts.
    void open(Market& market);
    // `is_first`: not an answer to another order; such arrivals move the product's level.
    OrderRequest next(std::size_t index, bool is_first);

private:
    int32_t fair_ticks(const Instrument& instrument) const;
    uint32_t lots();
    uint32_t distance();
    OrderRequest place(std::size_t index, Side side);
    OrderRequest take(std::size_t index, Side side);
    OrderRequest cancel(const OrderBook& book, Side side);

    const Market& market_;
    Rng rng_;
    std::vector<int64_t> shift_ppm_; // of each product's level, in millionths
};

} // namespace exchange_sim
