#include "tools/vorn/record/frame_ring.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <thread>
#include <vector>

using vorn_cli::FrameRing;

namespace {

struct Taken {
    uint32_t kind;
    uint64_t time_ns;
    std::string bytes;
    bool operator==(const Taken&) const = default;
};

std::vector<Taken> take_all(FrameRing& ring) {
    std::vector<Taken> taken;
    ring.drain([&](const FrameRing::Entry& entry) {
        taken.push_back({entry.kind, entry.time_ns, {entry.bytes.data(), entry.bytes.size()}});
        return true;
    });
    return taken;
}

TEST(FrameRing, GivesBackWhatWasPutInInItsOrder) {
    FrameRing ring(0);
    EXPECT_TRUE(take_all(ring).empty());
    const std::vector<Taken> entries = {
        {1, 10, "a"}, {2, 20, ""}, {3, uint64_t{1} << 63, std::string(16, 'b')}};
    for (const Taken& entry : entries) {
        EXPECT_TRUE(ring.push(entry.kind, entry.time_ns, entry.bytes));
    }
    EXPECT_EQ(take_all(ring), entries);
    EXPECT_TRUE(take_all(ring).empty());
}

TEST(FrameRing, SizesArePowersOfTwo) {
    EXPECT_EQ(FrameRing(0).size(), FrameRing::kSmallest);
    EXPECT_EQ(FrameRing(FrameRing::kSmallest + 1).size(), 2 * FrameRing::kSmallest);
    EXPECT_EQ(FrameRing(1 << 20).size(), 1u << 20);
}

TEST(FrameRing, AFullRingRefusesAndKeepsWhatItHas) {
    FrameRing ring(0);
    std::size_t put = 0;
    while (ring.push(1, put, std::string(100, 'x'))) {
        ++put;
    }
    // 16 bytes of head and 112 of frame each, and the reserve.
    EXPECT_EQ(put, (FrameRing::kSmallest - FrameRing::kReserve) / 128);
    const auto taken = take_all(ring);
    ASSERT_EQ(taken.size(), put);
    for (std::size_t i = 0; i < put; ++i) {
        EXPECT_EQ(taken[i].time_ns, i);
    }
    EXPECT_TRUE(ring.push(1, 0, std::string(100, 'x')));
}

TEST(FrameRing, WhatMustNotBeLostStillFindsRoom) {
    FrameRing ring(0);
    while (ring.push(1, 0, std::string(100, 'x'))) {
    }
    EXPECT_TRUE(ring.push_urgent(2, std::string(8, 'u')));
    const auto taken = take_all(ring);
    EXPECT_EQ(taken.back().kind, 2u);
}

TEST(FrameRing, TheConsumerMayLeaveAnEntry) {
    FrameRing ring(0);
    for (uint64_t i = 0; i < 4; ++i) {
        ring.push(1, i, "x");
    }
    EXPECT_EQ(ring.drain([](const FrameRing::Entry& entry) { return entry.time_ns < 2; }), 2u);
    EXPECT_EQ(take_all(ring).front().time_ns, 2u);
}

TEST(FrameRing, EntriesOfAnySizeStayInOnePiece) {
    FrameRing ring(0);
    std::mt19937 random(7);
    for (int round = 0; round < 2000; ++round) {
        std::vector<Taken> entries;
        for (uint32_t i = 0; i < 1 + random() % 3; ++i) {
            std::string bytes(random() % 2049, static_cast<char>('a' + random() % 26));
            entries.push_back({i, random(), std::move(bytes)});
            ASSERT_TRUE(ring.push(i, entries.back().time_ns, entries.back().bytes));
        }
        ASSERT_EQ(take_all(ring), entries);
    }
}

TEST(FrameRing, TwoThreadsSeeTheSameEntries) {
    constexpr uint64_t kEntries = 200'000;
    FrameRing ring(0);
    std::thread producer([&] {
        char bytes[64];
        for (uint64_t i = 0; i < kEntries;) {
            const std::size_t size = i % sizeof(bytes);
            std::fill_n(bytes, size, static_cast<char>(i));
            if (ring.push(static_cast<uint32_t>(i), i, {bytes, size})) {
                ++i;
            } else {
                std::this_thread::yield();
            }
        }
    });
    uint64_t next = 0;
    bool right = true;
    while (next < kEntries) {
        const auto taken = ring.drain([&](const FrameRing::Entry& entry) {
            right = right && entry.time_ns == next && entry.kind == static_cast<uint32_t>(next) &&
                    entry.bytes.size() == next % 64 &&
                    std::all_of(entry.bytes.begin(), entry.bytes.end(),
                                [&](char c) { return c == static_cast<char>(next); });
            ++next;
            return true;
        });
        if (taken == 0) {
            std::this_thread::yield();
        }
    }
    producer.join();
    EXPECT_TRUE(right);
}

} // namespace
