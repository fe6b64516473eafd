#include "exchange_sim/order_flow.h"

#include <algorithm>

namespace exchange_sim {

namespace {

constexpr int32_t kMaxStepPpm = 24;    // of a product's level at one arrival
constexpr int64_t kPullBack = 1 << 14; // a level returns by this part of its distance
constexpr uint32_t kTakePerMille = 150;
constexpr uint32_t kImprovePerMille = 140;
constexpr uint32_t kCrossPerMille = 40;
constexpr uint32_t kSweepPerMille = 120; // takers who want more than stands at the best price
constexpr int32_t kSweepTicks = 3;
constexpr std::size_t kKeptLevels = 2; // takers leave a side alone that is thinner
constexpr uint32_t kOpeningWidth = 24; // ticks from the fair price

} // namespace

OrderFlow::OrderFlow(const Market& market, Rng rng)
    : market_(market), rng_(rng), shift_ppm_(products().size()) {}

void OrderFlow::open(Market& market) {
    for (std::size_t index = 0; index < market.size(); ++index) {
        const Instrument& instrument = market.catalogue()[index];
        const uint32_t width = std::min(kOpeningWidth, instrument.depth);
        for (uint32_t order = 0; order < instrument.depth; ++order) {
            // Half of the orders make sure that the levels next to the touch are there, the rest
            // fall where they fall.
            const auto away = static_cast<int32_t>(order < width / 2 ? order : rng_.below(width));
            market.open_with(index, Side::kBid, instrument.reference_ticks - 1 - away, lots());
            market.open_with(index, Side::kAsk, instrument.reference_ticks + 1 + away, lots());
        }
    }
}

OrderRequest OrderFlow::next(std::size_t index, bool is_first) {
    const Instrument& instrument = market_.catalogue()[index];
    const OrderBook& book = market_.book(index);
    if (is_first) {
        int64_t& shift = shift_ppm_[instrument.product];
        shift += rng_.between(-kMaxStepPpm, kMaxStepPpm) - shift / kPullBack;
    }

    // Buyers are the more likely the further the price lies below the fair one.
    const bool two_sided = !book.empty(Side::kBid) && !book.empty(Side::kAsk);
    int32_t lean = 0;
    if (two_sided) {
        const int32_t twice_mid = book.best_ticks(Side::kBid) + book.best_ticks(Side::kAsk);
        lean = std::clamp((2 * fair_ticks(instrument) - twice_mid) * 40, -400, 400);
    }
    const Side side =
        rng_.below(1000) < static_cast<uint32_t>(500 + lean) ? Side::kBid : Side::kAsk;
    if (two_sided && rng_.chance(kTakePerMille)) {
        return take(index, side);
    }

    // The fuller the book, the more is cancelled, and rather on the fuller side; the thinner side
    // gets the more of the new orders.
    const auto bids = static_cast<uint32_t>(book.orders(Side::kBid).size());
    const auto asks = static_cast<uint32_t>(book.orders(Side::kAsk).size());
    if (rng_.below(4 * instrument.depth) < bids + asks) {
        return cancel(book, rng_.below(bids + asks) < bids ? Side::kBid : Side::kAsk);
    }
    const int32_t excess = static_cast<int32_t>(asks) - static_cast<int32_t>(bids);
    const int32_t thin = excess * 450 / static_cast<int32_t>(bids + asks + 1);
    const int32_t bid_per_mille = std::clamp(500 + lean / 4 + thin, 50, 950);
    return place(index,
                 rng_.chance(static_cast<uint32_t>(bid_per_mille)) ? Side::kBid : Side::kAsk);
}

int32_t OrderFlow::fair_ticks(const Instrument& instrument) const {
    const int64_t divisor = int64_t{1'000'000'000} * instrument.tick_milli;
    const int64_t move = shift_ppm_[instrument.product] * instrument.fair_slope / divisor;
    return std::clamp(instrument.reference_ticks + static_cast<int32_t>(move),
                      instrument.lower_limit_ticks, instrument.upper_limit_ticks);
}

// Mostly a few, now and then many.
uint32_t OrderFlow::lots() {
    const uint32_t kind = rng_.below(100);
    return kind < 35   ? 1
           : kind < 70 ? 2 + rng_.below(4)
           : kind < 95 ? 6 + rng_.below(15)
                       : 21 + rng_.below(180);
}

// Ticks behind the touch: each further tick is less likely by a quarter, with a thin tail.
uint32_t OrderFlow::distance() {
    if (rng_.chance(60)) {
        return rng_.below(30);
    }
    uint32_t ticks = 0;
    while (ticks < 20 && rng_.chance(750)) {
        ++ticks;
    }
    return ticks;
}

OrderRequest OrderFlow::place(std::size_t index, Side side) {
    const Instrument& instrument = market_.catalogue()[index];
    const OrderBook& book = market_.book(index);
    const int32_t fair = fair_ticks(instrument);
    const int32_t inward = side == Side::kBid ? 1 : -1; // towards the other side
    const Side other = opposite(side);

    // From the touch; where there is none, from the fair price, but not across the other side.
    int32_t touch = fair - inward;
    if (!book.empty(side)) {
        touch = book.best_ticks(side);
    } else if (!book.empty(other) && (book.best_ticks(other) - touch) * inward <= 0) {
        touch = book.best_ticks(other) - inward;
    }
    int32_t price = touch - inward * static_cast<int32_t>(distance());
    if (!book.empty(other)) {
        const int32_t other_touch = book.best_ticks(other);
        const int32_t spread = (other_touch - touch) * inward;
        if (rng_.chance(kCrossPerMille)) {
            price = other_touch;
        } else if (spread > 1 && rng_.chance(kImprovePerMille +
                                             60 * static_cast<uint32_t>(std::min(spread, 8)))) {
            price = touch + inward * static_cast<int32_t>(1 + rng_.below(static_cast<uint32_t>(
                                                                  std::min(spread - 1, 6))));
        }
    }
    OrderRequest request;
    request.kind = OrderRequest::Kind::kPlace;
    request.side = side;
    request.price_ticks =
        std::clamp(price, instrument.lower_limit_ticks, instrument.upper_limit_ticks);
    request.volume = lots();
    request.open_per_mille = rng_.below(600);
    request.close_per_mille = rng_.below(600);
    return request;
}

OrderRequest OrderFlow::take(std::size_t index, Side side) {
    const Instrument& instrument = market_.catalogue()[index];
    const OrderBook& book = market_.book(index);
    const Side other = opposite(side);
    if (book.level_count(other) < kKeptLevels) {
        return place(index, side);
    }
    const int32_t best = book.best_ticks(other);
    OrderRequest request;
    request.kind = OrderRequest::Kind::kFillAndKill;
    request.side = side;
    request.price_ticks = best;
    request.volume = std::min(lots(), book.best_volume(other));
    if (rng_.chance(kSweepPerMille)) {
        const int32_t reach = rng_.between(0, kSweepTicks);
        request.price_ticks =
            std::clamp(side == Side::kBid ? best + reach : best - reach,
                       instrument.lower_limit_ticks, instrument.upper_limit_ticks);
        request.volume = book.best_volume(other) + lots();
    }
    request.open_per_mille = rng_.below(600);
    request.close_per_mille = rng_.below(600);
    return request;
}

// Of two resting orders the one nearer to the touch, half of the time; else any.
OrderRequest OrderFlow::cancel(const OrderBook& book, Side side) {
    const auto orders = book.orders(side);
    OrderRequest request;
    request.kind = OrderRequest::Kind::kCancel;
    request.side = side;
    request.order = orders[rng_.below(static_cast<uint32_t>(orders.size()))];
    if (rng_.chance(500)) {
        const OrderId second = orders[rng_.below(static_cast<uint32_t>(orders.size()))];
        const int32_t difference =
            book.order(second).price_ticks - book.order(request.order).price_ticks;
        if (side == Side::kBid ? difference > 0 : difference < 0) {
            request.order = second;
        }
    }
    return request;
}

} // namespace exchange_sim
