#include "exchange_sim/book_publisher.h"

#include "exchange_sim/rng.h"
#include "test_consumer.h"

#include <gtest/gtest.h>

namespace exchange_sim {
namespace {

using testing::Applied;
using testing::Scale;
using wirekit::DecodeBufferBuilder;

const Scale kScale{0.5, 100.0, 10};

// A side of random levels; never touches the other side, which starts beyond 1000 ticks.
SideView random_view(Rng& rng, Side side, int32_t spread) {
    SideView view;
    view.size = static_cast<int>(rng.below(kDepth + 1));
    int32_t ticks = 1 + static_cast<int32_t>(rng.below(2));
    for (int i = 0; i < view.size; ++i) {
        view.levels[static_cast<std::size_t>(i)] = {side == Side::kBid ? -ticks : ticks,
                                                    1 + rng.below(3)};
        ticks += 1 + static_cast<int32_t>(rng.below(static_cast<uint32_t>(spread)));
    }
    return view;
}

void put_view(ExpectedRecord& record, Side side, const SideView& view, int levels) {
    auto& prices = side == Side::kBid ? record.bid_px : record.ask_px;
    auto& volumes = side == Side::kBid ? record.bid_vol : record.ask_vol;
    prices.fill(0.0);
    volumes.fill(0);
    for (int i = 0; i < std::min(view.size, levels); ++i) {
        const auto at = static_cast<std::size_t>(i);
        prices[at] = kScale.price(view.levels[at].price_ticks);
        volumes[at] = static_cast<int32_t>(view.levels[at].volume);
    }
}

void expect_levels(const ExpectedRecord& record, const ExpectedRecord& truth, std::size_t levels) {
    for (std::size_t i = 0; i < levels; ++i) {
        ASSERT_EQ(record.bid_px[i], truth.bid_px[i]) << "bid " << i;
        ASSERT_EQ(record.bid_vol[i], truth.bid_vol[i]) << "bid " << i;
        ASSERT_EQ(record.ask_px[i], truth.ask_px[i]) << "ask " << i;
        ASSERT_EQ(record.ask_vol[i], truth.ask_vol[i]) << "ask " << i;
    }
}

// Steps from view to view, with a consumer that has had every message and one that came from a
// five-level snapshot a few messages ago.
class Follower {
public:
    explicit Follower(uint64_t seed, int32_t spread) : rng_(seed), spread_(spread) {
        views_[0] = random_view(rng_, Side::kBid, spread_);
        views_[1] = random_view(rng_, Side::kAsk, spread_);
        store(truth_, kDepth);
        full_ = truth_;
        fresh_ = truth_;
        store(fresh_, 5);
    }

    void step() {
        DecodeBufferBuilder buffer;
        buffer.change_no(truth_.change_no + 1);
        bool structural = true;
        for (const Side side : {Side::kBid, Side::kAsk}) {
            SideView& view = views_[side_index(side)];
            SideView now = view;
            if (rng_.chance(200)) { // volumes only
                for (auto& level : now.levels) {
                    level.volume = 1 + rng_.below(3);
                }
            } else if (rng_.chance(900)) {
                now = random_view(rng_, side, spread_);
            }
            bool same_prices = view.size == now.size;
            for (std::size_t i = 0; i < static_cast<std::size_t>(view.size); ++i) {
                same_prices =
                    same_prices && view.levels[i].price_ticks == now.levels[i].price_ticks;
            }
            structural = structural && !same_prices;
            const int fields = publish_side(buffer, side, view, now);
            view = now;
            ASSERT_LE(fields, 25);
        }
        store(truth_, kDepth);
        ++truth_.change_no;
        ASSERT_EQ(apply(full_, buffer), Applied::kYes);
        ASSERT_EQ(apply(fresh_, buffer), Applied::kYes);
        expect_levels(full_, truth_, kDepth);
        expect_levels(fresh_, truth_, structural ? kDepth : 5);
    }

    // The consumer starts again from five levels.
    void take_snapshot() {
        fresh_ = truth_;
        store(fresh_, 5);
    }

    void finish() {
        DecodeBufferBuilder buffer;
        buffer.change_no(++truth_.change_no);
        for (const Side side : {Side::kBid, Side::kAsk}) {
            restate_side(buffer, side, views_[side_index(side)]);
        }
        ASSERT_EQ(apply(full_, buffer), Applied::kYes);
        ASSERT_EQ(apply(fresh_, buffer), Applied::kYes);
        expect_levels(full_, truth_, kDepth);
        expect_levels(fresh_, truth_, kDepth);
    }

    Rng& rng() { return rng_; }

private:
    void store(ExpectedRecord& record, int levels) {
        put_view(record, Side::kBid, views_[0], levels);
        put_view(record, Side::kAsk, views_[1], levels);
    }
    static Applied apply(ExpectedRecord& record, const DecodeBufferBuilder& buffer) {
        return apply_decode_buffer(record, kScale, 0, buffer.bytes());
    }

    Rng rng_;
    int32_t spread_;
    std::array<SideView, 2> views_;
    ExpectedRecord truth_;
    ExpectedRecord full_;
    ExpectedRecord fresh_;
};

TEST(BookPublisher, ConsumersFollowRandomBooks) {
    // A small spread makes views that share most of their prices, a large one views that share few.
    for (const int32_t spread : {1, 2, 4}) {
        for (uint64_t seed = 1; seed <= 60; ++seed) {
            SCOPED_TRACE(::testing::Message() << "seed " << seed << " spread " << spread);
            Follower follower(seed, spread);
            for (int i = 0; i < 200; ++i) {
                if (follower.rng().chance(150)) {
                    follower.take_snapshot();
                }
                follower.step();
                if (HasFatalFailure()) {
                    return;
                }
            }
            follower.finish();
        }
    }
}

SideView view_from(std::initializer_list<BookLevel> levels) {
    SideView view;
    for (const BookLevel& level : levels) {
        view.levels[static_cast<std::size_t>(view.size++)] = level;
    }
    return view;
}

SideView asks(int count, int32_t first = 1) {
    SideView view;
    for (; view.size < count; ++view.size) {
        view.levels[static_cast<std::size_t>(view.size)] = {first + view.size, 9};
    }
    return view;
}

TEST(BookPublisher, EqualViewsNeedNoField) {
    DecodeBufferBuilder buffer;
    EXPECT_EQ(publish_side(buffer, Side::kAsk, asks(10), asks(10)), 0);
    EXPECT_EQ(buffer.bytes().size(), 24u);
}

TEST(BookPublisher, VolumeChangesAreUpdatesWithoutRestating) {
    SideView now = asks(10);
    now.levels[0].volume = 1;
    now.levels[8].volume = 2;
    DecodeBufferBuilder buffer;
    EXPECT_EQ(publish_side(buffer, Side::kAsk, asks(10), now), 2);
    EXPECT_EQ(
        buffer.bytes(),
        wirekit::decode_buffer().update(Side::kAsk, 1, 1, 1).update(Side::kAsk, 9, 9, 2).bytes());
}

TEST(BookPublisher, FiveLevelsAreNotRestated) {
    const SideView now = view_from({{1, 9}, {3, 9}, {4, 9}, {5, 9}});
    DecodeBufferBuilder buffer;
    EXPECT_EQ(publish_side(buffer, Side::kAsk, asks(5), now), 1);
    EXPECT_EQ(buffer.bytes(), wirekit::decode_buffer().erase(Side::kAsk, 2).bytes());
}

TEST(BookPublisher, DeeperSidesAreRestatedBeforeTheChange) {
    const SideView now = view_from(
        {{1, 9}, {2, 9}, {4, 9}, {5, 9}, {6, 9}, {7, 9}, {8, 9}, {9, 9}, {10, 9}, {11, 5}});
    DecodeBufferBuilder buffer;
    EXPECT_EQ(publish_side(buffer, Side::kAsk, asks(10), now), 7);
    EXPECT_EQ(buffer.bytes(), wirekit::decode_buffer()
                                  .insert(Side::kAsk, 6, 6, 9)
                                  .insert(Side::kAsk, 7, 7, 9)
                                  .insert(Side::kAsk, 8, 8, 9)
                                  .insert(Side::kAsk, 9, 9, 9)
                                  .insert(Side::kAsk, 10, 10, 9)
                                  .erase(Side::kAsk, 3)
                                  .insert(Side::kAsk, 10, 11, 5) // from below into view
                                  .bytes());
}

TEST(BookPublisher, FullSidePushesItsLastLevelOutWithoutADelete) {
    DecodeBufferBuilder buffer;
    EXPECT_EQ(publish_side(buffer, Side::kBid, SideView{}, SideView{}), 0);
    SideView now = asks(10, 0);
    EXPECT_EQ(publish_side(buffer, Side::kAsk, asks(10), now), 6);
    const auto bytes = buffer.bytes();
    EXPECT_EQ(bytes[bytes.size() - 16 + 3], 1);  // level
    EXPECT_EQ(bytes[bytes.size() - 16 + 12], 1); // insert
}

TEST(BookPublisher, RestatingHasNothingToSayOfFiveLevels) {
    DecodeBufferBuilder buffer;
    EXPECT_EQ(restate_side(buffer, Side::kAsk, asks(5)), 0);
    EXPECT_EQ(restate_side(buffer, Side::kAsk, asks(6)), 1);
    EXPECT_EQ(buffer.bytes(), wirekit::decode_buffer().insert(Side::kAsk, 6, 6, 9).bytes());
}

} // namespace
} // namespace exchange_sim
