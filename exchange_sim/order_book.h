#pragma once

// One instrument's limit order book with price-time priority. Real orders stand in it, each with
// its place in the queue of its price, so that every view (levels, totals, trades) follows from
// them.
//
// Prices are ticks from the codec price. The book knows no limits and no tick values; it trades
// what it is given. All books of a market share one pool of orders, which grows to the number of
// orders resting at the same time and no further.

#include "wirekit/mirp.h"

#include <array>
#include <cstdint>
#include <span>
#include <vector>

namespace exchange_sim {

using wirekit::Side;

inline constexpr Side opposite(Side side) {
    return side == Side::kBid ? Side::kAsk : Side::kBid;
}
inline constexpr std::size_t side_index(Side side) {
    return static_cast<std::size_t>(side);
}

using OrderId = uint32_t;
inline constexpr OrderId kNoOrder = UINT32_MAX;

struct Order {
    int32_t price_ticks = 0;
    uint32_t volume = 0;     // what is left of it
    OrderId next = kNoOrder; // behind it in the queue of its price
    OrderId previous = kNoOrder;
    uint32_t live_index = 0; // where its book's list of live orders has it
    Side side = Side::kBid;
};

class OrderPool {
public:
    OrderId take();
    void give_back(OrderId id);
    Order& operator[](OrderId id) { return orders_[id]; }
    const Order& operator[](OrderId id) const { return orders_[id]; }
    std::size_t capacity() const { return orders_.size(); }

private:
    std::vector<Order> orders_;
    OrderId free_ = kNoOrder; // chained through `next`
};

struct BookLevel {
    int32_t price_ticks = 0;
    uint32_t volume = 0;
    bool operator==(const BookLevel&) const = default;
};

// What an order traded on entry. Prices are those of the resting orders.
struct Execution {
    uint32_t volume = 0;
    uint32_t trades = 0;      // resting orders that it met
    int64_t ticks_volume = 0; // sum of ticks times lots
    int32_t first_ticks = 0;  // best price for the incoming order
    int32_t last_ticks = 0;   // worst
};

struct SideTotals {
    int64_t volume = 0;
    int64_t ticks_volume = 0; // sum of ticks times lots
    bool operator==(const SideTotals&) const = default;
};

class OrderBook {
public:
    explicit OrderBook(OrderPool& pool) : pool_(&pool) {}

    // Trades against the other side as far as the price allows; the rest is placed.
    Execution place(Side side, int32_t price_ticks, uint32_t volume);
    // Trades as place() does; the rest is dropped.
    Execution fill_and_kill(Side side, int32_t worst_ticks, uint32_t volume);
    void cancel(OrderId id);

    bool empty(Side side) const { return levels_[side_index(side)].empty(); }
    // The side is not empty.
    int32_t best_ticks(Side side) const { return levels_[side_index(side)].back().price_ticks; }
    uint32_t best_volume(Side side) const { return levels_[side_index(side)].back().volume; }
    std::size_t level_count(Side side) const { return levels_[side_index(side)].size(); }
    // 0 is the best.
    BookLevel level(Side side, std::size_t depth) const {
        const auto& levels = levels_[side_index(side)];
        const Level& at = levels[levels.size() - 1 - depth];
        return {at.price_ticks, at.volume};
    }
    const SideTotals& totals(Side side) const { return totals_[side_index(side)]; }

    // Live orders of a side, in no particular order.
    std::span<const OrderId> orders(Side side) const { return live_[side_index(side)]; }
    const Order& order(OrderId id) const { return (*pool_)[id]; }

private:
    struct Level {
        int32_t price_ticks;
        uint32_t volume;
        OrderId first; // front of the queue
        OrderId last;
    };

    Execution trade(Side side, int32_t worst_ticks, uint32_t& volume);
    void rest(Side side, int32_t price_ticks, uint32_t volume);
    void remove_live(OrderId id);

    OrderPool* pool_;
    // Worst price first: what changes most, near the touch, stands at the end.
    std::array<std::vector<Level>, 2> levels_;
    std::array<std::vector<OrderId>, 2> live_;
    std::array<SideTotals, 2> totals_;
};

} // namespace exchange_sim
