// G7: a raw frame from the decoder thread to the worker, in bursts of 64 on one processor.

#include "bench/harness/contest.h"
#include "bench/harness/report.h"
#include "bench/reference/literal_worker.h"

#include "tcp/FramePool.h"
#include "tcp/TaskWorker.h"

#include <atomic>
#include <cstring>
#include <memory>
#include <sched.h>
#include <vector>

namespace {

using namespace bench;

constexpr uint32_t kBurst = 64;
constexpr uint32_t kBursts = 2'000;
constexpr uint32_t kFrame = 1514;

// What stands for handling a frame: the same few loads for either worker.
std::atomic<uint64_t> g_handled{0};

void handle(const char* frame, uint32_t size) {
    uint64_t word;
    std::memcpy(&word, frame + size - sizeof(word), sizeof(word));
    keep(word);
    g_handled.fetch_add(1, std::memory_order_release);
}

// The burst is over when the worker has handled it, as a snapshot is when its last frame is.
void wait_for(uint64_t count) {
    while (g_handled.load(std::memory_order_acquire) != count) {
        sched_yield();
    }
}

} // namespace

int main() {
    report_run("hand_over", pin_to_one_processor());
    std::vector<char> received(RECV_BUF_SIZE, 'x');

    const auto vorn = [&] {
        FramePool pool;
        CThread worker;
        for (uint32_t burst = 1; burst <= kBursts; ++burst) {
            for (uint32_t i = 0; i < kBurst; ++i) {
                FramePool::Handle frame = pool.Take();
                std::memcpy(frame->bytes, received.data(), kFrame);
                std::memset(frame->bytes + kFrame, 0, DECODE_SLACK);
                worker.Post([frame = std::move(frame)] { handle(frame->bytes, kFrame); });
            }
            wait_for(uint64_t{burst} * kBurst);
        }
        worker.Join();
    };
    const auto literal = [&] {
        LiteralWorker worker;
        for (uint32_t burst = 1; burst <= kBursts; ++burst) {
            for (uint32_t i = 0; i < kBurst; ++i) {
                std::unique_ptr<char[]> frame(new char[kFrame + DECODE_SLACK]());
                std::memcpy(frame.get(), received.data(), kFrame);
                worker.enqueue([frame = std::move(frame)] { handle(frame.get(), kFrame); });
            }
            wait_for(uint64_t{burst} * kBurst);
        }
    };
    const auto reset = [] { g_handled = 0; };
    const auto hash = [] { return g_handled.load(); };

    Contest contest;
    contest.operations = uint64_t{kBurst} * kBursts;
    const Times times =
        run_contest(contest, {{"vorn", reset, vorn, hash}, {"literal", reset, literal, hash}});
    report_figure("G7", "vorn", "bursts of 64", times.ns("vorn"), "ns");
    report_figure("G7", "literal", "bursts of 64", times.ns("literal"), "ns");
    report_goal({"G7", "bursts of 64", times.ratio("literal", "vorn"), Better::kLarger, 3, 8});
    return 0;
}
