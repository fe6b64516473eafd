// The worker: order of tasks, results, shutdown, and the two ways in which a thread can fail.

#include "tcp/TaskWorker.h"
#include "tests/support/child_process.h"
#include "tests/support/temp_dir.h"
#include "tests/unit/tcp/platform_stubs.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <gtest/gtest.h>
#include <mutex>
#include <pthread.h>
#include <string>
#include <system_error>
#include <thread>

namespace tcp_test {
namespace {

static_assert(!std::is_copy_constructible_v<CThread> && !std::is_copy_assignable_v<CThread>);
static_assert(!std::is_move_constructible_v<CThread> && !std::is_move_assignable_v<CThread>);

// Holds whoever waits until it is opened.
class Gate {
public:
    void open() { promise_.set_value(); }
    std::shared_future<void> future() const { return future_; }

private:
    std::promise<void> promise_;
    std::shared_future<void> future_ = promise_.get_future().share();
};

TEST(TaskWorker, RunsTasksInTheOrderInWhichTheyWereQueued) {
    std::vector<int> ran;
    CThread worker;
    for (int i = 0; i < 1000; ++i) {
        worker.Enqueue([&ran, i] { ran.push_back(i); });
    }
    worker.Join();
    ASSERT_EQ(ran.size(), 1000u);
    for (int i = 0; i < 1000; ++i) {
        EXPECT_EQ(ran[static_cast<std::size_t>(i)], i);
    }
}

TEST(TaskWorker, JoinReturnsAfterEverythingQueuedBeforeIt) {
    Gate gate;
    std::vector<int> ran;
    CThread worker;
    worker.Enqueue([future = gate.future()] { future.wait(); });
    for (int i = 0; i < 100; ++i) {
        worker.Enqueue([&ran, i] { ran.push_back(i); });
    }
    std::thread opener([&] { gate.open(); });
    worker.Join();
    opener.join();
    ASSERT_EQ(ran.size(), 100u);
    EXPECT_EQ(ran.back(), 99);
}

TEST(TaskWorker, TheDestructorDrainsAndJoins) {
    int ran = 0;
    {
        CThread worker;
        for (int i = 0; i < 100; ++i) {
            worker.Enqueue([&ran] { ++ran; });
        }
    }
    EXPECT_EQ(ran, 100);
}

TEST(TaskWorker, EnqueueAfterJoinThrowsAndQueuesNothing) {
    bool ran = false;
    {
        CThread worker;
        worker.Join();
        try {
            worker.Enqueue([&ran] { ran = true; });
            FAIL() << "nothing was thrown";
        } catch (const std::runtime_error& error) {
            EXPECT_STREQ(error.what(), "Enqueue on stopped CThread");
        }
        EXPECT_TRUE(worker.tasks.empty());
    }
    EXPECT_FALSE(ran);
}

TEST(TaskWorker, JoiningTwiceIsAllowed) {
    CThread worker;
    worker.Join();
    worker.Join();
}

TEST(TaskWorker, ATaskThatThrowsDoesNotStopTheWorker) {
    CThread worker;
    auto failed = worker.Enqueue([]() -> int { throw std::invalid_argument("broken frame"); });
    worker.Enqueue([] { throw 7; }); // its future is dropped
    auto next = worker.Enqueue([] { return 5; });
    EXPECT_EQ(next.get(), 5);
    try {
        failed.get();
        FAIL() << "the exception is lost";
    } catch (const std::invalid_argument& error) {
        EXPECT_STREQ(error.what(), "broken frame");
    }
}

TEST(TaskWorker, PostedCallsRunInOrderWithQueuedOnes) {
    std::vector<int> ran;
    CThread worker;
    for (int i = 0; i < 500; ++i) {
        worker.Post([&ran, i] { ran.push_back(2 * i); });
        worker.Enqueue([&ran, i] { ran.push_back(2 * i + 1); });
    }
    worker.Join();
    ASSERT_EQ(ran.size(), 1000u);
    for (int i = 0; i < 1000; ++i) {
        EXPECT_EQ(ran[static_cast<std::size_t>(i)], i);
    }
}

TEST(TaskWorker, APostedCallThatThrowsIsLostAndTheNextOneRuns) {
    CThread worker;
    worker.Post([] { throw 7; });
    EXPECT_EQ(worker.Enqueue([] { return 5; }).get(), 5);
}

TEST(TaskWorker, PostAfterJoinThrows) {
    CThread worker;
    worker.Join();
    EXPECT_THROW(worker.Post([] {}), std::runtime_error);
}

TEST(TaskWorker, SleepsWhenThereIsNothingToDo) {
    CThread worker;
    const auto asleep = [&] {
        const std::lock_guard<std::mutex> lock(worker.queueMutex);
        return worker.sleeping;
    };
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!asleep() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_TRUE(asleep());
}

TEST(TaskWorker, ASleepingWorkerIsWokenEachTime) {
    CThread worker;
    for (int i = 0; i < 200; ++i) {
        EXPECT_EQ(worker.Enqueue([i] { return i; }).get(), i);
        if (i % 20 == 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1)); // it falls asleep
        }
    }
}

TEST(TaskWorker, FuturesCarryResultsOfCallsWithArguments) {
    struct Counter {
        int value = 10;
        int add(int more) { return value += more; }
    };
    Counter counter;
    CThread worker;
    auto sum = worker.Enqueue([](int a, int b) { return a + b; }, 2, 3);
    auto text = worker.Enqueue([](const std::string& a, const char* b) { return a + b; },
                               std::string("Pkt"), "Hdr");
    auto member = worker.Enqueue(&Counter::add, &counter, 5);
    auto owned = worker.Enqueue([](std::unique_ptr<int> value) { return *value; },
                                std::make_unique<int>(77));
    int changed = 0;
    auto reference = worker.Enqueue([](int& value) { value = 9; }, std::ref(changed));
    auto captured = worker.Enqueue([value = std::make_unique<int>(78)] { return *value; });
    EXPECT_EQ(sum.get(), 5);
    EXPECT_EQ(text.get(), "PktHdr");
    EXPECT_EQ(member.get(), 15);
    EXPECT_EQ(owned.get(), 77);
    reference.get();
    EXPECT_EQ(changed, 9);
    EXPECT_EQ(captured.get(), 78);
    static_assert(std::is_same_v<decltype(reference), std::future<void>>);
}

TEST(TaskWorker, ArgumentsAreCopiedWhenTheyAreQueued) {
    Gate gate;
    CThread worker;
    worker.Enqueue([future = gate.future()] { future.wait(); });
    std::string frame = "as queued";
    auto seen = worker.Enqueue([](const std::string& text) { return text; }, frame);
    frame = "as changed afterwards";
    gate.open();
    EXPECT_EQ(seen.get(), "as queued");
}

TEST(TaskWorker, ItsThreadIsNamedAndIsNotTheCallers) {
    CThread worker;
    auto name = worker.Enqueue([] {
        char text[16] = {};
        pthread_getname_np(pthread_self(), text, sizeof(text));
        return std::string(text);
    });
    EXPECT_EQ(name.get(), "PktHdr");
    EXPECT_NE(worker.Enqueue([] { return std::this_thread::get_id(); }).get(),
              std::this_thread::get_id());
    char own[16] = {};
    pthread_getname_np(pthread_self(), own, sizeof(own));
    EXPECT_STRNE(own, "PktHdr");
}

TEST(TaskWorker, ItsThreadInheritsTheAffinityOfItsCreator) {
    cpu_set_t mine;
    CPU_ZERO(&mine);
    ASSERT_EQ(pthread_getaffinity_np(pthread_self(), sizeof(mine), &mine), 0);
    CThread worker;
    cpu_set_t its = worker
                        .Enqueue([] {
                            cpu_set_t set;
                            CPU_ZERO(&set);
                            pthread_getaffinity_np(pthread_self(), sizeof(set), &set);
                            return set;
                        })
                        .get();
    EXPECT_TRUE(CPU_EQUAL(&mine, &its));
}

TEST(TaskWorker, TasksRunOneAtATimeAlsoWhenManyQueue) {
    std::atomic<int> inside{0};
    int total = 0;
    bool alone = true;
    std::vector<int> last(4, -1);
    bool in_order = true;
    {
        CThread worker;
        std::vector<std::thread> producers;
        for (int producer = 0; producer < 4; ++producer) {
            producers.emplace_back([&, producer] {
                for (int i = 0; i < 250; ++i) {
                    worker.Enqueue([&, producer, i] {
                        alone = alone && inside.fetch_add(1) == 0;
                        int& before = last[static_cast<std::size_t>(producer)];
                        in_order = in_order && before == i - 1;
                        before = i;
                        ++total;
                        inside.fetch_sub(1);
                    });
                }
            });
        }
        for (std::thread& producer : producers) {
            producer.join();
        }
    }
    EXPECT_EQ(total, 1000);
    EXPECT_TRUE(alone);
    EXPECT_TRUE(in_order);
}

TEST(TaskWorker, ATaskMayQueueAnother) {
    CThread worker; // tasks run outside the queue's lock
    std::promise<int> done;
    worker.Enqueue([&] { worker.Enqueue([&] { done.set_value(3); }); });
    EXPECT_EQ(done.get_future().get(), 3);
}

TEST(TaskWorker, ATasksOwnDataIsFreedWithIt) {
    auto shared = std::make_shared<int>(1);
    CThread worker;
    for (int i = 0; i < 10; ++i) {
        worker.Enqueue([shared] {});
    }
    worker.Join();
    EXPECT_EQ(shared.use_count(), 1);
}

TEST(TaskWorker, AThreadThatCannotStartIsReportedAndItsTasksNeverRun) {
    bool ran = false;
    std::future<void> future;
    testing::internal::CaptureStderr();
    {
        const NoNewThreads refusal;
        CThread worker;
        future = worker.Enqueue([&ran] { ran = true; });
        worker.Enqueue([&ran] { ran = true; });
        EXPECT_EQ(worker.tasks.size(), 2u);
        worker.Join();
        EXPECT_EQ(worker.tasks.size(), 2u);
        EXPECT_EQ(future.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
        EXPECT_THROW(worker.Enqueue([] {}), std::runtime_error);
    }
    const std::string reason = std::system_error(EAGAIN, std::generic_category()).what();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Failed to start thread: " + reason + "\n");
    EXPECT_FALSE(ran);
    EXPECT_THROW(future.get(), std::future_error); // the queue is freed with its tasks
}

TEST(TaskWorker, AFailedJoinIsReportedAndEndsTheProcessAtDestruction) {
    const support::TempDir directory;
    const support::ChildRun child = support::run_child(directory.path(), [] {
        CThread worker;
        worker.Enqueue([] {}).get();
        refuse_joins();
        worker.Join(); // reported, not thrown
        static_cast<void>(write(1, "joined", 6));
    });
    EXPECT_EQ(child.out, "joined");
    EXPECT_EQ(child.err.rfind("Failed to join thread: ", 0), 0u) << child.err;
    EXPECT_NE(child.err.find('\n'), std::string::npos);
    EXPECT_EQ(child.signal, SIGABRT); // a thread object that is still joinable
}

} // namespace
} // namespace tcp_test
