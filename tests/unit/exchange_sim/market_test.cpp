#include "exchange_sim/market.h"

#include "exchange_sim/order_flow.h"
#include "test_consumer.h"

#include <gtest/gtest.h>

namespace exchange_sim {
namespace {

constexpr uint64_t kTime = 1'768'438'800'123'456'789;

Instrument future() {
    Instrument instrument;
    instrument.id = "cu2601";
    instrument.number = 7;
    instrument.volume_multiple = 5;
    instrument.tick_milli = 10000;
    instrument.price_tick = 10.0;
    instrument.codec_milli = 70'000'000;
    instrument.codec_price = 70000.0;
    instrument.lower_limit_ticks = -100;
    instrument.upper_limit_ticks = 100;
    instrument.pre_open_interest = 1000;
    return instrument;
}

OrderRequest place(Side side, int32_t price, uint32_t volume) {
    OrderRequest request;
    request.kind = OrderRequest::Kind::kPlace;
    request.side = side;
    request.price_ticks = price;
    request.volume = volume;
    return request;
}

class MarketTest : public ::testing::Test {
protected:
    MarketTest() : market_({future()}, SessionOptions()) {
        market_.open_with(0, Side::kBid, -1, 10);
        market_.open_with(0, Side::kAsk, 1, 4);
        market_.open_with(0, Side::kAsk, 2, 6);
        market_.open();
    }
    bool apply(const OrderRequest& request) { return market_.apply(0, request, kTime, buffer_); }
    const ExpectedRecord& truth() const { return market_.truth(0); }

    Market market_;
    wirekit::DecodeBufferBuilder buffer_;
};

TEST_F(MarketTest, OpeningFillsTheRecordWithoutAChange) {
    EXPECT_EQ(truth().change_no, 0u);
    EXPECT_STREQ(truth().inst_id.data(), "cu2601");
    EXPECT_EQ(truth().bid_px[0], 69990.0);
    EXPECT_EQ(truth().ask_px[1], 70020.0);
    EXPECT_EQ(truth().ask_vol[1], 6);
    EXPECT_EQ(truth().bid_totvol, 10);
    EXPECT_EQ(truth().ask_totvol, 10);
    EXPECT_EQ(truth().bid_totamount, 10 * 69990.0 * 5);
    EXPECT_EQ(truth().open_interest, 1000.0);
    EXPECT_EQ(truth().last_px, 0.0);
}

TEST_F(MarketTest, TradeThroughTwoLevelsIsOneChange) {
    OrderRequest request = place(Side::kBid, 2, 7);
    request.open_per_mille = 1000;
    ASSERT_TRUE(apply(request));
    EXPECT_EQ(buffer_.bytes(), wirekit::decode_buffer()
                                   .topic(1000)
                                   .time(1'768'438'800, 123)
                                   .packet_no(1)
                                   .instrument(7)
                                   .change_no(1)
                                   .deal(2, 7, 4 * 1 + 3 * 2, 7)
                                   .highest(2)
                                   .lowest(1)
                                   .erase(Side::kAsk, 1)
                                   .update(Side::kAsk, 1, 2, 3)
                                   .ask_totals(-7, -10)
                                   .bytes());
    EXPECT_EQ(truth().change_no, 1u);
    EXPECT_EQ(truth().last_px, 70020.0);
    EXPECT_EQ(truth().highest_price, 70020.0);
    EXPECT_EQ(truth().lowest_price, 70010.0);
    EXPECT_EQ(truth().volume, 7u);
    EXPECT_EQ(truth().turnover, (4 * 70010.0 + 3 * 70020.0) * 5);
    EXPECT_EQ(truth().open_interest, 1007.0);
    EXPECT_EQ(truth().ask_totvol, 3);
    EXPECT_EQ(truth().update_milli_sec, 123);
    EXPECT_EQ(market_.counters().trades, 2u);
}

TEST_F(MarketTest, OrderThatTradesAndRestsChangesBothSides) {
    ASSERT_TRUE(apply(place(Side::kBid, 1, 9)));
    EXPECT_EQ(truth().bid_px[0], 70010.0);
    EXPECT_EQ(truth().bid_vol[0], 5);
    EXPECT_EQ(truth().ask_px[0], 70020.0);
    EXPECT_EQ(truth().bid_totvol, 15);
    EXPECT_EQ(truth().ask_totvol, 6);
}

TEST_F(MarketTest, HighAndLowAreSentOnlyWhenTheyMove) {
    ASSERT_TRUE(apply(place(Side::kBid, 1, 1)));
    const std::size_t first = buffer_.bytes().size();
    ASSERT_TRUE(apply(place(Side::kBid, 1, 1)));
    EXPECT_EQ(buffer_.bytes().size(), first - 2 * 8);
}

TEST_F(MarketTest, OrdersOutsideTheLimitsAreRefused) {
    EXPECT_FALSE(apply(place(Side::kBid, 101, 1)));
    EXPECT_FALSE(apply(place(Side::kAsk, -101, 1)));
    EXPECT_FALSE(apply(place(Side::kAsk, 5, 0)));
    EXPECT_EQ(market_.counters().refused, 3u);
    EXPECT_EQ(truth().change_no, 0u);
    EXPECT_TRUE(apply(place(Side::kAsk, 100, 1)));
}

TEST_F(MarketTest, KilledWithoutATradeIsNoChange) {
    OrderRequest request = place(Side::kBid, 0, 5);
    request.kind = OrderRequest::Kind::kFillAndKill;
    EXPECT_FALSE(apply(request));
    EXPECT_EQ(truth().change_no, 0u);
    EXPECT_EQ(market_.packet_no(Exchange::kShfe), 0);
}

TEST_F(MarketTest, CancellationBeyondTheTenthLevelChangesTheTotalsOnly) {
    for (int32_t price = 3; price <= 12; ++price) {
        ASSERT_TRUE(apply(place(Side::kAsk, price, 1)));
    }
    const ExpectedRecord before = truth();
    OrderRequest request;
    request.kind = OrderRequest::Kind::kCancel;
    request.order = market_.book(0).orders(Side::kAsk).back();
    ASSERT_EQ(market_.book(0).order(request.order).price_ticks, 12);
    ASSERT_TRUE(apply(request));
    EXPECT_EQ(buffer_.bytes().size(), 24u + 16u);
    EXPECT_EQ(truth().ask_px, before.ask_px);
    EXPECT_EQ(truth().ask_totvol, before.ask_totvol - 1);
}

TEST_F(MarketTest, OpenInterestNeverFallsBelowZero) {
    OrderRequest request = place(Side::kAsk, -1, 1);
    request.close_per_mille = 1000;
    for (int i = 0; i < 1100; ++i) {
        ASSERT_TRUE(apply(place(Side::kBid, -1, 1)));
        ASSERT_TRUE(apply(request));
    }
    EXPECT_EQ(truth().open_interest, 0.0);
}

TEST_F(MarketTest, RestatingStampsTheRecordAndChangesNothingElse) {
    for (int32_t price = 3; price <= 8; ++price) {
        ASSERT_TRUE(apply(place(Side::kAsk, price, 1)));
    }
    ExpectedRecord before = truth();
    market_.restate(0, kTime + 1'000'000'000, buffer_);
    EXPECT_EQ(buffer_.bytes(), wirekit::decode_buffer()
                                   .time(1'768'438'801, 123)
                                   .packet_no(7)
                                   .instrument(7)
                                   .change_no(7)
                                   .insert(Side::kAsk, 6, 6, 1)
                                   .insert(Side::kAsk, 7, 7, 1)
                                   .insert(Side::kAsk, 8, 8, 1)
                                   .bid_totals(0, 0)
                                   .bytes());
    before.change_no = 7;
    before.update_time = 1'768'438'801;
    EXPECT_EQ(truth(), before);
}

// The books that come of the order flow: two-sided, mostly deep, moving with the fair price.
TEST(OrderFlow, KeepsBooksTwoSidedAndDeep) {
    SessionOptions options;
    options.instruments = 100;
    Market market(make_catalogue(options), options);
    OrderFlow flow(market, Rng(5));
    flow.open(market);
    market.open();
    wirekit::DecodeBufferBuilder buffer;
    Rng rng(6);
    std::size_t two_sided = 0;
    std::size_t ten_levels = 0;
    std::size_t changes = 0;
    for (int step = 0; step < 200'000; ++step) {
        const std::size_t index = rng.below(static_cast<uint32_t>(market.size()));
        changes += market.apply(index, flow.next(index, rng.chance(350)), kTime, buffer) ? 1 : 0;
        const OrderBook& book = market.book(index);
        two_sided += !book.empty(Side::kBid) && !book.empty(Side::kAsk) ? 1 : 0;
        ten_levels += book.level_count(Side::kBid) >= 10 ? 1 : 0;
        // Bounded, whatever has come before.
        ASSERT_LT(book.orders(Side::kBid).size(), 6u * market.catalogue()[index].depth + 20);
    }
    EXPECT_GT(changes, 199'000u);
    EXPECT_GT(two_sided, 199'000u);
    EXPECT_GT(ten_levels, 100'000u);
    EXPECT_GT(market.counters().trades, 20'000u);
    EXPECT_EQ(market.counters().refused, 0u);
}

} // namespace
} // namespace exchange_sim
