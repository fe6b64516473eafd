// Pooled frame buffers: taken by one thread, given back by any.

#include "tcp/FramePool.h"

#include "tests/unit/tcp/platform_stubs.h"

#include <atomic>
#include <cstring>
#include <gtest/gtest.h>
#include <malloc.h>
#include <set>
#include <thread>

namespace tcp_test {
namespace {

TEST(FramePool, HandsOutABufferAgainOnceItCameBack) {
    FramePool pool;
    std::set<FramePool::Buffer*> seen;
    for (int i = 0; i < 100; ++i) {
        FramePool::Handle first = pool.Take();
        FramePool::Handle second = pool.Take();
        EXPECT_NE(first.get(), second.get());
        seen.insert(first.get());
        seen.insert(second.get());
    }
    EXPECT_LE(seen.size(), 4u);
}

TEST(FramePool, HasRoomForTheLargestFrameAndItsSlack) {
    FramePool pool;
    const FramePool::Handle buffer = pool.Take();
    EXPECT_EQ(sizeof(buffer->bytes), 2048u + 256u);
}

TEST(FramePool, TakesBackFromAnotherThreadWithoutMixingBuffersUp) {
    constexpr int kRounds = 20'000;
    FramePool pool;
    std::atomic<FramePool::Buffer*> slot{nullptr};
    std::atomic<int> wrong{0};
    std::thread giver([&] {
        for (int i = 0; i < kRounds; ++i) {
            FramePool::Buffer* buffer = nullptr;
            while ((buffer = slot.exchange(nullptr)) == nullptr) {
                std::this_thread::yield();
            }
            int stamp = 0;
            std::memcpy(&stamp, buffer->bytes, sizeof(stamp));
            wrong += stamp != i ? 1 : 0;
            FramePool::Handle(buffer, FramePool::GiveBack{&pool}).reset();
        }
    });
    for (int i = 0; i < kRounds; ++i) {
        FramePool::Handle buffer = pool.Take();
        std::memcpy(buffer->bytes, &i, sizeof(i));
        FramePool::Buffer* expected = nullptr;
        while (!slot.compare_exchange_weak(expected, buffer.get())) {
            expected = nullptr;
            std::this_thread::yield();
        }
        buffer.release();
    }
    giver.join();
    EXPECT_EQ(wrong, 0);
}

#if TCP_TEST_ALLOCATION_STUB

std::size_t bytes_in_use() {
    return mallinfo2().uordblks;
}

TEST(FramePool, KeepsWhatCameBackUntilItIsReleased) {
    FramePool pool;
    const std::size_t before = bytes_in_use();
    pool.Take();
    EXPECT_GE(bytes_in_use(), before + sizeof(FramePool::Buffer));
    pool.Release();
    EXPECT_EQ(bytes_in_use(), before);
}

TEST(FramePool, LeavesNothingBehindAtItsEnd) {
    const std::size_t before = bytes_in_use();
    {
        FramePool pool;
        const FramePool::Handle taken = pool.Take();
        pool.Take(); // given, and not taken again
    }
    EXPECT_EQ(bytes_in_use(), before);
}

#endif

} // namespace
} // namespace tcp_test
