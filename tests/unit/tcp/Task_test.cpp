// What a queue of tasks is made of: a call kept in place or on the heap, and pooled frame buffers.

#include "tcp/FramePool.h"
#include "tcp/Task.h"

#include <array>
#include <atomic>
#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <set>
#include <thread>
#include <vector>

namespace tcp_test {
namespace {

static_assert(!std::is_copy_constructible_v<Task> && !std::is_copy_assignable_v<Task>);
static_assert(std::is_nothrow_move_constructible_v<Task>);

// A callable of a given size that owns something.
template <std::size_t Size>
struct Call {
    std::shared_ptr<int> count;
    std::array<char, Size> more{};
    void operator()() { ++*count; }
};

template <std::size_t Size>
void run_once_and_free() {
    const auto count = std::make_shared<int>(0);
    {
        Task task(Call<Size>{count});
        EXPECT_EQ(count.use_count(), 2);
        Task moved(std::move(task));
        EXPECT_EQ(count.use_count(), 2) << "moved, not copied";
        moved.Run();
        EXPECT_EQ(*count, 1);
        Task assigned;
        assigned = std::move(moved);
        assigned.Run();
        EXPECT_EQ(*count, 2);
        assigned.Reset();
        EXPECT_EQ(count.use_count(), 1);
        assigned.Reset();
        Task replaced(Call<Size>{count});
        replaced = Task(Call<Size>{count});
        EXPECT_EQ(count.use_count(), 2) << "the first call was dropped";
    }
    EXPECT_EQ(count.use_count(), 1);
}

TEST(Task, OfASmallCallRunsAndFreesWhatItOwns) {
    run_once_and_free<1>();
}

TEST(Task, OfALargeCallRunsAndFreesWhatItOwns) {
    run_once_and_free<500>();
}

TEST(Task, ThatIsNeverRunFreesWhatItOwns) {
    const auto count = std::make_shared<int>(0);
    {
        std::vector<Task> queue;
        for (int i = 0; i < 100; ++i) {
            queue.emplace_back(Call<1>{count});
            queue.emplace_back(Call<500>{count});
        }
        EXPECT_EQ(count.use_count(), 201);
    }
    EXPECT_EQ(count.use_count(), 1);
    EXPECT_EQ(*count, 0);
}

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

TEST(TaskMove, OfATaskWithoutACallLeavesOneWithout) {
    const auto count = std::make_shared<int>(0);
    Task empty;
    Task moved(std::move(empty));
    Task full(Call<8>{count});
    full = std::move(moved);
    EXPECT_EQ(count.use_count(), 1) << "the call that it held is gone";
    full.Reset(); // nothing to drop
}

TEST(TaskMove, OntoItselfKeepsTheCall) {
    const auto count = std::make_shared<int>(0);
    Task task(Call<8>{count});
    Task& same = task;
    task = std::move(same);
    task.Run();
    EXPECT_EQ(*count, 1);
}

} // namespace
} // namespace tcp_test
