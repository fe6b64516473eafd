#include "exchange_sim/order_book.h"

#include "exchange_sim/rng.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <list>

namespace exchange_sim {
namespace {

// The same rules without any structure: a list of orders by arrival, searched from end to end.
class NaiveBook {
public:
    struct Entry {
        OrderId id;
        Side side;
        int32_t price;
        uint32_t volume;
    };

    Execution trade(Side side, int32_t worst, uint32_t& volume) {
        Execution execution;
        while (volume > 0) {
            const auto best = front(opposite(side));
            if (best == entries_.end() ||
                (side == Side::kBid ? best->price > worst : best->price < worst)) {
                break;
            }
            const uint32_t filled = std::min(volume, best->volume);
            if (execution.trades == 0) {
                execution.first_ticks = best->price;
            }
            execution.last_ticks = best->price;
            execution.volume += filled;
            execution.ticks_volume += static_cast<int64_t>(filled) * best->price;
            ++execution.trades;
            volume -= filled;
            best->volume -= filled;
            if (best->volume == 0) {
                entries_.erase(best);
            }
        }
        return execution;
    }
    void add(OrderId id, Side side, int32_t price, uint32_t volume) {
        entries_.push_back({id, side, price, volume});
    }
    void cancel(OrderId id) {
        entries_.remove_if([&](const Entry& entry) { return entry.id == id; });
    }
    std::vector<BookLevel> levels(Side side) const {
        std::vector<BookLevel> levels;
        for (const Entry& entry : entries_) {
            if (entry.side != side) {
                continue;
            }
            const auto at = std::find_if(levels.begin(), levels.end(), [&](const BookLevel& level) {
                return level.price_ticks == entry.price;
            });
            if (at == levels.end()) {
                levels.push_back({entry.price, entry.volume});
            } else {
                at->volume += entry.volume;
            }
        }
        std::sort(levels.begin(), levels.end(), [&](const BookLevel& left, const BookLevel& right) {
            return side == Side::kBid ? left.price_ticks > right.price_ticks
                                      : left.price_ticks < right.price_ticks;
        });
        return levels;
    }
    const std::list<Entry>& entries() const { return entries_; }

private:
    // Oldest of the best price.
    std::list<Entry>::iterator front(Side side) {
        auto best = entries_.end();
        for (auto at = entries_.begin(); at != entries_.end(); ++at) {
            if (at->side == side &&
                (best == entries_.end() ||
                 (side == Side::kBid ? at->price > best->price : at->price < best->price))) {
                best = at;
            }
        }
        return best;
    }
    std::list<Entry> entries_;
};

std::vector<BookLevel> levels_of(const OrderBook& book, Side side) {
    std::vector<BookLevel> levels;
    for (std::size_t depth = 0; depth < book.level_count(side); ++depth) {
        levels.push_back(book.level(side, depth));
    }
    return levels;
}

void expect_same(const Execution& left, const Execution& right) {
    EXPECT_EQ(left.volume, right.volume);
    EXPECT_EQ(left.trades, right.trades);
    EXPECT_EQ(left.ticks_volume, right.ticks_volume);
    EXPECT_EQ(left.first_ticks, right.first_ticks);
    EXPECT_EQ(left.last_ticks, right.last_ticks);
}

void expect_consistent(const OrderBook& book, const NaiveBook& naive) {
    for (const Side side : {Side::kBid, Side::kAsk}) {
        ASSERT_EQ(levels_of(book, side), naive.levels(side));
        SideTotals totals;
        std::size_t count = 0;
        for (const auto& entry : naive.entries()) {
            if (entry.side == side) {
                totals.volume += entry.volume;
                totals.ticks_volume += static_cast<int64_t>(entry.volume) * entry.price;
                ++count;
                // Same identity, so the queues are the same too.
                ASSERT_EQ(book.order(entry.id).volume, entry.volume);
                ASSERT_EQ(book.order(entry.id).price_ticks, entry.price);
            }
        }
        ASSERT_EQ(book.totals(side), totals);
        ASSERT_EQ(book.orders(side).size(), count);
    }
    if (!book.empty(Side::kBid) && !book.empty(Side::kAsk)) {
        ASSERT_LT(book.best_ticks(Side::kBid), book.best_ticks(Side::kAsk));
    }
}

TEST(OrderBook, AgreesWithANaiveModelUnderRandomFlow) {
    for (uint64_t seed = 1; seed <= 20; ++seed) {
        SCOPED_TRACE(seed);
        Rng rng(seed);
        OrderPool pool;
        OrderBook book(pool);
        OrderBook neighbour(pool); // its orders must stay as they are
        NaiveBook naive;
        neighbour.place(Side::kBid, 5, 7);
        for (int step = 0; step < 1500; ++step) {
            const Side side = rng.chance(500) ? Side::kBid : Side::kAsk;
            const int32_t price = rng.between(-12, 12) + (side == Side::kBid ? -3 : 3);
            uint32_t volume = 1 + rng.below(9);
            const uint32_t kind = rng.below(10);
            if (kind < 5) {
                const Execution execution = book.place(side, price, volume);
                expect_same(execution, naive.trade(side, price, volume));
                if (volume > 0) {
                    naive.add(book.orders(side).back(), side, price, volume);
                }
            } else if (kind < 7) {
                const Execution execution = book.fill_and_kill(side, price, volume);
                expect_same(execution, naive.trade(side, price, volume));
            } else if (!book.orders(side).empty()) {
                const auto orders = book.orders(side);
                const OrderId id = orders[rng.below(static_cast<uint32_t>(orders.size()))];
                book.cancel(id);
                naive.cancel(id);
            }
            expect_consistent(book, naive);
            if (HasFatalFailure()) {
                FAIL() << "step " << step;
            }
        }
        EXPECT_EQ(neighbour.totals(Side::kBid), (SideTotals{7, 35}));
    }
}

TEST(OrderBook, OlderOrdersOfAPriceTradeFirst) {
    OrderPool pool;
    OrderBook book(pool);
    book.place(Side::kAsk, 10, 3);
    const OrderId first = book.orders(Side::kAsk).back();
    book.place(Side::kAsk, 10, 4);
    const OrderId second = book.orders(Side::kAsk).back();
    EXPECT_EQ(book.fill_and_kill(Side::kBid, 10, 2).trades, 1u);
    EXPECT_EQ(book.order(first).volume, 1u);
    EXPECT_EQ(book.order(second).volume, 4u);
    EXPECT_EQ(book.fill_and_kill(Side::kBid, 10, 2).trades, 2u);
    EXPECT_EQ(book.order(second).volume, 3u);
    EXPECT_EQ(book.level(Side::kAsk, 0), (BookLevel{10, 3}));
}

TEST(OrderBook, IncomingOrderTradesAtTheRestingPricesAndRestsWithWhatIsLeft) {
    OrderPool pool;
    OrderBook book(pool);
    book.place(Side::kBid, -1, 2);
    book.place(Side::kBid, -3, 5);
    const Execution execution = book.place(Side::kAsk, -2, 6);
    EXPECT_EQ(execution.volume, 2u);
    EXPECT_EQ(execution.last_ticks, -1);
    EXPECT_EQ(execution.ticks_volume, -2);
    EXPECT_EQ(book.level(Side::kAsk, 0), (BookLevel{-2, 4}));
    EXPECT_EQ(book.level(Side::kBid, 0), (BookLevel{-3, 5}));
}

TEST(OrderBook, PoolReusesOrdersThatAreGone) {
    OrderPool pool;
    OrderBook book(pool);
    for (int round = 0; round < 1000; ++round) {
        book.place(Side::kBid, round, 1);
        book.place(Side::kAsk, round, 1);
    }
    EXPECT_TRUE(book.empty(Side::kBid));
    EXPECT_TRUE(book.empty(Side::kAsk));
    EXPECT_LE(pool.capacity(), 2u);
}

} // namespace
} // namespace exchange_sim
