#include "tools/vorn/fanout/lanes.h"

#include <gtest/gtest.h>

#include <random>

using namespace vorn_cli;

namespace {

Outgoing message(uint64_t sequence) {
    Outgoing outgoing;
    outgoing.sequence = sequence;
    return outgoing;
}

TEST(Lanes, SendOneMessageOfALaneAtATime) {
    Lanes lanes(10);
    lanes.push(3, message(1), 0);
    lanes.push(3, message(2), 0);
    lanes.push(5, message(3), 0);
    EXPECT_EQ(lanes.next(0), 3u);
    EXPECT_EQ(lanes.front(3).message.sequence, 1u);
    EXPECT_EQ(lanes.next(0), 5u);
    EXPECT_EQ(lanes.next(0), kLanes) << "what is behind waits";
    EXPECT_EQ(lanes.under_way(), 2u);
    lanes.done(3);
    EXPECT_EQ(lanes.next(0), 3u);
    EXPECT_EQ(lanes.front(3).message.sequence, 2u);
    lanes.done(3);
    lanes.done(5);
    EXPECT_EQ(lanes.size(), 0u);
    EXPECT_EQ(lanes.under_way(), 0u);
}

TEST(Lanes, SendAgainWhatFailedBeforeWhatIsBehindIt) {
    Lanes lanes(10);
    lanes.push(3, message(1), 0);
    lanes.push(3, message(2), 0);
    ASSERT_EQ(lanes.next(0), 3u);
    lanes.later(3, 100);
    EXPECT_FALSE(lanes.is_under_way(3));
    EXPECT_EQ(lanes.next(99), kLanes);
    EXPECT_EQ(lanes.next(100), 3u);
    EXPECT_EQ(lanes.front(3).message.sequence, 1u);
}

TEST(Lanes, HoldAsideUntilReleased) {
    Lanes lanes(10);
    lanes.push(3, message(1), 0);
    ASSERT_EQ(lanes.next(0), 3u);
    lanes.aside(3);
    lanes.push(3, message(2), 0);
    EXPECT_TRUE(lanes.has_aside());
    EXPECT_EQ(lanes.next(0), kLanes);
    lanes.release();
    EXPECT_FALSE(lanes.has_aside());
    EXPECT_EQ(lanes.next(0), 3u);
    EXPECT_EQ(lanes.front(3).message.sequence, 1u);
}

TEST(Lanes, AreFullAtTheirCapacity) {
    Lanes lanes(2);
    lanes.push(1, message(1), 0);
    EXPECT_FALSE(lanes.full());
    lanes.push(1, message(2), 0);
    EXPECT_TRUE(lanes.full());
    ASSERT_EQ(lanes.next(0), 1u);
    lanes.done(1);
    EXPECT_FALSE(lanes.full());
}

TEST(Lanes, KeepTheOrderOfEachWhateverHappens) {
    std::mt19937 random(20260115);
    constexpr uint32_t kUsed = 7;
    Lanes lanes(200);
    std::array<uint64_t, kUsed> pushed{};
    std::array<uint64_t, kUsed> over{};
    std::vector<uint32_t> under_way;
    for (uint64_t now = 1; now < 200'000; ++now) {
        const auto lane = static_cast<uint32_t>(random() % kUsed);
        switch (random() % 4) {
        case 0:
            if (!lanes.full()) {
                lanes.push(lane, message(++pushed[lane]), now);
            }
            break;
        case 1:
            if (const uint32_t next = lanes.next(now); next != kLanes) {
                ASSERT_EQ(lanes.front(next).message.sequence, over[next] + 1);
                under_way.push_back(next);
            }
            break;
        case 2:
            if (!under_way.empty()) {
                const std::size_t at = random() % under_way.size();
                const uint32_t chosen = under_way[at];
                under_way.erase(under_way.begin() + static_cast<std::ptrdiff_t>(at));
                switch (random() % 4) {
                case 0:
                    lanes.later(chosen, now + random() % 50);
                    break;
                case 1:
                    lanes.aside(chosen);
                    break;
                default:
                    ++over[chosen];
                    lanes.done(chosen);
                }
            }
            break;
        default:
            if (random() % 8 == 0) {
                lanes.release();
            }
        }
        ASSERT_EQ(lanes.under_way(), under_way.size());
    }
    uint64_t left = 0;
    for (uint32_t lane = 0; lane < kUsed; ++lane) {
        EXPECT_GT(over[lane], 1000u);
        left += pushed[lane] - over[lane];
    }
    EXPECT_EQ(lanes.size(), left);
}

} // namespace
