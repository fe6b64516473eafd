// What a queue of tasks is made of: a call kept in place or on the heap.

#include "tcp/Task.h"

#include <array>
#include <gtest/gtest.h>
#include <memory>
#include <type_traits>
#include <utility>
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
