#pragma once

// All instruments with their books and statistics. Takes orders and cancellations, publishes one
// change for each that had an effect, and keeps the truth up to date while doing so.

#include "exchange_sim/book_publisher.h"
#include "exchange_sim/instruments.h"
#include "exchange_sim/truth.h"

#include <vector>

namespace exchange_sim {

struct OrderRequest {
    enum class Kind : uint8_t { kNone, kPlace, kFillAndKill, kCancel };
    Kind kind = Kind::kNone;
    Side side = Side::kBid;
    int32_t price_ticks = 0;
    uint32_t volume = 0;
    OrderId order = kNoOrder; // to be cancelled
    // How much of a traded volume opens positions on both sides, and how much closes them.
    uint32_t open_per_mille = 0;
    uint32_t close_per_mille = 0;
};

struct MarketCounters {
    uint64_t changes = 0;
    uint64_t trades = 0; // resting orders met
    uint64_t traded_volume = 0;
    uint64_t refused = 0; // orders outside the daily limits
};

class Market {
public:
    Market(std::vector<Instrument> catalogue, const SessionOptions& options);
    Market(const Market&) = delete;
    Market& operator=(const Market&) = delete;

    std::size_t size() const { return catalogue_.size(); }
    const std::vector<Instrument>& catalogue() const { return catalogue_; }
    const OrderBook& book(std::size_t index) const { return states_[index].book; }
    const ExpectedRecord& truth(std::size_t index) const { return truths_[index]; }
    const ExactAmounts& exact(std::size_t index) const { return states_[index].exact; }
    const MarketCounters& counters() const { return counters_; }
    int32_t packet_no(Exchange exchange) const {
        return packet_no_[static_cast<std::size_t>(exchange)];
    }
    // Price of the last trade, or yesterday's settlement price.
    int32_t last_ticks(std::size_t index) const { return states_[index].last_ticks; }
    bool has_traded(std::size_t index) const { return states_[index].has_traded; }
    int32_t open_ticks(std::size_t index) const { return states_[index].open_ticks; }

    // Puts an order into the book before the session starts; nothing is published.
    void open_with(std::size_t index, Side side, int32_t price_ticks, uint32_t volume);
    // Ends the opening: the record takes over what the books hold.
    void open();

    // Carries out the request. True: the instrument changed and `buffer` holds the change.
    bool apply(std::size_t index, const OrderRequest& request, uint64_t time_ns,
               wirekit::DecodeBufferBuilder& buffer);
    // A change without a cause: restates the levels that snapshots do not carry.
    void restate(std::size_t index, uint64_t time_ns, wirekit::DecodeBufferBuilder& buffer);

private:
    struct State {
        explicit State(OrderPool& pool) : book(pool) {}
        OrderBook book;
        std::array<SideView, 2> views;    // as last published
        std::array<SideTotals, 2> totals; // likewise
        ExactAmounts exact;
        int64_t open_interest = 0;
        int32_t last_ticks = 0;
        int32_t high_ticks = 0;
        int32_t low_ticks = 0;
        int32_t open_ticks = 0;
        bool has_traded = false;
    };

    void begin_change(std::size_t index, uint64_t time_ns, wirekit::DecodeBufferBuilder& buffer);
    void publish_trade(std::size_t index, const OrderRequest& request, const Execution& execution,
                       wirekit::DecodeBufferBuilder& buffer);
    void publish_book(std::size_t index, Side side, wirekit::DecodeBufferBuilder& buffer);
    void publish_totals(std::size_t index, Side side, wirekit::DecodeBufferBuilder& buffer);
    void store_view(std::size_t index, Side side);

    std::vector<Instrument> catalogue_;
    OrderPool pool_;
    std::vector<State> states_;
    std::vector<ExpectedRecord> truths_;
    std::array<uint16_t, 2> topic_{};
    std::array<int32_t, 2> packet_no_{};
    MarketCounters counters_;
};

} // namespace exchange_sim
