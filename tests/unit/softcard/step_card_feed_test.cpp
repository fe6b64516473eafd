#include "step_rig.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <gtest/gtest.h>
#include <mutex>
#include <pthread.h>
#include <sched.h>
#include <thread>

namespace softcard {
namespace {

using test::Bytes;
using namespace test;

// What a feed does with the card, reduced to what the card can tell: raw frames go to a worker of
// the feed's name that counts the ends of rounds; the caller caches, replays and goes live.
class MiniFeed {
public:
    struct Outcome {
        std::size_t cached = 0;
        std::vector<Bytes> replayed_new; // taken in during the replay
        std::vector<Bytes> live;
        std::size_t raw_frames = 0;
        bool operator==(const Outcome&) const = default;
    };

    // Satisfied by the `rounds`th end of a round; `work` is done for each frame by the worker.
    MiniFeed(Rig& rig, int rounds, std::function<void(int)> work)
        : rig_(rig), rounds_(rounds), work_(std::move(work)) {}

    Outcome run(std::size_t live_frames) {
        Outcome outcome;
        std::thread poller([&] { poll_raw(outcome); });
        while (!done_) {
            const Bytes buffer = rig_.poll_decode();
            outcome.cached += buffer.empty() ? 0 : 1;
            sched_yield();
        }
        poller.join();
        end_snapshot(rig_.registers);
        rig_.registers[kAllShfeSwitchWord] = 1;
        for (std::size_t left = outcome.cached; left > 0; --left) {
            const Bytes buffer = rig_.poll_decode();
            if (!buffer.empty()) {
                outcome.replayed_new.push_back(buffer);
                ++left;
            }
        }
        while (outcome.live.size() < live_frames) {
            const Bytes buffer = rig_.poll_decode();
            if (!buffer.empty()) {
                outcome.live.push_back(buffer);
            }
        }
        return outcome;
    }

private:
    void poll_raw(Outcome& outcome) {
        std::thread worker([this] {
            pthread_setname_np(pthread_self(), "PktHdr");
            work();
        });
        while (!(ends_ >= rounds_ && !handling_)) {
            const Bytes frame = rig_.poll_raw();
            if (!frame.empty()) {
                ++outcome.raw_frames;
                handling_ = true;
                {
                    const std::lock_guard lock(mutex_);
                    queue_.push_back(frame);
                }
                condition_.notify_one();
            } else {
                sched_yield();
            }
        }
        {
            const std::lock_guard lock(mutex_);
            stop_ = true;
        }
        condition_.notify_all();
        worker.join();
        done_ = true;
    }

    void work() {
        std::unique_lock lock(mutex_);
        int number = 0;
        while (true) {
            handling_ = !queue_.empty();
            condition_.wait(lock, [this] { return stop_ || !queue_.empty(); });
            if (queue_.empty()) {
                return;
            }
            const Bytes frame = std::move(queue_.front());
            queue_.pop_front();
            lock.unlock();
            work_(number++);
            ends_ = ends_ + (frame[54] == wirekit::kFlagLast ? 1 : 0);
            lock.lock();
        }
    }

    Rig& rig_;
    const int rounds_;
    const std::function<void(int)> work_;
    std::mutex mutex_;
    std::condition_variable condition_;
    std::deque<Bytes> queue_;
    bool stop_ = false;
    std::atomic<bool> handling_{false};
    std::atomic<int> ends_{0};
    std::atomic<bool> done_{false};
};

constexpr uint32_t kChangesPerRound = 60;

// Rounds of four raw frames with changes between and behind them.
std::vector<Bytes> session(int rounds) {
    std::vector<Bytes> frames;
    Stream stream;
    uint32_t change_no = 0;
    for (int round = 0; round < rounds; ++round) {
        for (uint32_t i = 0; i < kChangesPerRound; ++i) {
            if (i % 15 == 7) {
                frames.push_back(stream.next(i == 52 ? last() : more()));
            }
            frames.push_back(change(++change_no));
        }
    }
    return frames;
}

void burn(std::chrono::microseconds time) {
    const auto end = std::chrono::steady_clock::now() + time;
    while (std::chrono::steady_clock::now() < end) {
    }
}

// How the worker spends its time must not show in the outcome.
struct WorkCase {
    const char* name;
    std::function<void(int)> work;
};

const WorkCase kWork[] = {
    {"Quick", [](int) {}},
    {"Busy", [](int) { burn(std::chrono::microseconds(3000)); }},
    {"BusyAtTheEnd", [](int frame) { burn(std::chrono::microseconds(frame % 4 == 3 ? 8000 : 0)); }},
    {"Asleep", [](int) { std::this_thread::sleep_for(std::chrono::milliseconds(4)); }},
};

class StepCardWithAFeed : public testing::TestWithParam<WorkCase> {};

TEST_P(StepCardWithAFeed, GivesTheSameOutcomeForAsManyRoundsAsItWants) {
    for (int rounds = 1; rounds <= 3; ++rounds) {
        SCOPED_TRACE(rounds);
        Rig rig(session(3));
        const std::size_t before_the_end = static_cast<std::size_t>(rounds - 1) * 60 + 52;
        const std::size_t live = 180 - before_the_end;
        const auto outcome = MiniFeed(rig, rounds, GetParam().work).run(live);
        EXPECT_EQ(outcome.cached, before_the_end);
        EXPECT_EQ(outcome.raw_frames, static_cast<std::size_t>(rounds) * 4);
        EXPECT_TRUE(outcome.replayed_new.empty());
        ASSERT_EQ(outcome.live.size(), live);
        for (std::size_t i = 0; i < live; ++i) {
            ASSERT_EQ(outcome.live[i], payload_of(static_cast<uint32_t>(before_the_end + i + 1)));
        }
    }
}

TEST_P(StepCardWithAFeed, GivesTheSameOutcomeWithEveryThreadOnOneCore) {
    cpu_set_t before, one;
    ASSERT_EQ(sched_getaffinity(0, sizeof(before), &before), 0);
    CPU_ZERO(&one);
    CPU_SET(static_cast<std::size_t>(sched_getcpu()), &one);
    ASSERT_EQ(sched_setaffinity(0, sizeof(one), &one), 0);
    Rig rig(session(2));
    const auto outcome = MiniFeed(rig, 2, GetParam().work).run(8);
    EXPECT_EQ(outcome.cached, 112u);
    EXPECT_TRUE(outcome.replayed_new.empty());
    EXPECT_EQ(outcome.live.front(), payload_of(113));
    EXPECT_EQ(sched_setaffinity(0, sizeof(before), &before), 0);
}

INSTANTIATE_TEST_SUITE_P(Work, StepCardWithAFeed, testing::ValuesIn(kWork),
                         [](const auto& row) { return std::string(row.param.name); });

} // namespace
} // namespace softcard
