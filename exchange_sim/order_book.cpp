#include "exchange_sim/order_book.h"

#include <algorithm>

namespace exchange_sim {

namespace {

// Whether `left` stands before `right` in the queue for the other side's orders.
bool is_better(Side side, int32_t left, int32_t right) {
    return side == Side::kBid ? left > right : left < right;
}

} // namespace

OrderId OrderPool::take() {
    if (free_ == kNoOrder) {
        orders_.emplace_back();
        return static_cast<OrderId>(orders_.size() - 1);
    }
    const OrderId id = free_;
    free_ = orders_[id].next;
    return id;
}

void OrderPool::give_back(OrderId id) {
    orders_[id].next = free_;
    free_ = id;
}

Execution OrderBook::place(Side side, int32_t price_ticks, uint32_t volume) {
    const Execution execution = trade(side, price_ticks, volume);
    if (volume > 0) {
        rest(side, price_ticks, volume);
    }
    return execution;
}

Execution OrderBook::fill_and_kill(Side side, int32_t worst_ticks, uint32_t volume) {
    return trade(side, worst_ticks, volume);
}

// Takes from the other side, best price first and oldest order first; `volume` is what remains.
Execution OrderBook::trade(Side side, int32_t worst_ticks, uint32_t& volume) {
    const Side other = opposite(side);
    auto& levels = levels_[side_index(other)];
    SideTotals& totals = totals_[side_index(other)];
    Execution execution;
    while (volume > 0 && !levels.empty() &&
           !is_better(other, worst_ticks, levels.back().price_ticks)) {
        Level& level = levels.back();
        if (execution.trades == 0) {
            execution.first_ticks = level.price_ticks;
        }
        execution.last_ticks = level.price_ticks;
        while (volume > 0 && level.first != kNoOrder) {
            const OrderId id = level.first;
            Order& resting = (*pool_)[id];
            const uint32_t filled = std::min(volume, resting.volume);
            const int64_t ticks_volume = static_cast<int64_t>(filled) * level.price_ticks;
            volume -= filled;
            resting.volume -= filled;
            level.volume -= filled;
            totals.volume -= filled;
            totals.ticks_volume -= ticks_volume;
            execution.volume += filled;
            execution.ticks_volume += ticks_volume;
            ++execution.trades;
            if (resting.volume == 0) {
                level.first = resting.next;
                if (level.first != kNoOrder) {
                    (*pool_)[level.first].previous = kNoOrder;
                }
                remove_live(id);
            }
        }
        if (level.first == kNoOrder) {
            levels.pop_back();
        }
    }
    return execution;
}

void OrderBook::rest(Side side, int32_t price_ticks, uint32_t volume) {
    auto& levels = levels_[side_index(side)];
    auto& live = live_[side_index(side)];
    const OrderId id = pool_->take();
    Order& order = (*pool_)[id];
    order = {price_ticks, volume, kNoOrder, kNoOrder, static_cast<uint32_t>(live.size()), side};
    live.push_back(id);

    std::size_t behind = levels.size(); // the level's place, or where it is to be made
    while (behind > 0 && is_better(side, levels[behind - 1].price_ticks, price_ticks)) {
        --behind;
    }
    if (behind > 0 && levels[behind - 1].price_ticks == price_ticks) {
        Level& level = levels[behind - 1];
        order.previous = level.last;
        (*pool_)[level.last].next = id;
        level.last = id;
        level.volume += volume;
    } else {
        levels.insert(levels.begin() + static_cast<std::ptrdiff_t>(behind),
                      {price_ticks, volume, id, id});
    }
    totals_[side_index(side)].volume += volume;
    totals_[side_index(side)].ticks_volume += static_cast<int64_t>(volume) * price_ticks;
}

void OrderBook::cancel(OrderId id) {
    const Order order = (*pool_)[id];
    auto& levels = levels_[side_index(order.side)];
    auto at = levels.end();
    do {
        --at;
    } while (at->price_ticks != order.price_ticks);

    if (order.previous == kNoOrder) {
        at->first = order.next;
    } else {
        (*pool_)[order.previous].next = order.next;
    }
    if (order.next == kNoOrder) {
        at->last = order.previous;
    } else {
        (*pool_)[order.next].previous = order.previous;
    }
    at->volume -= order.volume;
    if (at->first == kNoOrder) {
        levels.erase(at);
    }
    totals_[side_index(order.side)].volume -= order.volume;
    totals_[side_index(order.side)].ticks_volume -=
        static_cast<int64_t>(order.volume) * order.price_ticks;
    remove_live(id);
}

// Takes the order out of the list of live orders and gives it back to the pool.
void OrderBook::remove_live(OrderId id) {
    const Order& order = (*pool_)[id];
    auto& live = live_[side_index(order.side)];
    const uint32_t hole = order.live_index;
    live[hole] = live.back();
    (*pool_)[live[hole]].live_index = hole;
    live.pop_back();
    pool_->give_back(id);
}

} // namespace exchange_sim
