// Thousands of gaps, each of which takes the feed through a whole new cycle, in one call of the
// entry. After a warm-up, threads, descriptors and the blocks of memory that are allocated must be
// the same at the first live poll of every cycle, and the resident memory must not grow.
//
//     restart_storm [CYCLES]
//
// Every tenth gap comes while the cached changes are replayed, the others in the live stream.
//
// Exit status: 0 fine, 1 something grew or the feed did not take every cycle, 2 usage.

#include "ExanicMdImpl.h"
#include "cache_memory.h"
#include "feed_card.h"
#include "market_script.h"
#include "process_state.h"

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <sched.h>
#include <string>
#include <unistd.h>
#include <vector>

extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
void __libc_free(void* block);
}

namespace {

std::atomic<int64_t> block_count{0}; // allocated and not freed

void* counted(void* block) {
    block_count.fetch_add(block == nullptr ? 0 : 1, std::memory_order_relaxed);
    return block;
}

constexpr std::size_t kRound = 10; // gaps, the last of them in the replay
constexpr std::size_t kWarmUp = 2 * kRound;
constexpr uint64_t kLiveUpdates = 5 * (kRound - 1); // calls of the callback in a round
// What the C library may still take from the kernel for itself.
constexpr int64_t kResidentSlack = 1 << 20;

struct State {
    std::size_t threads;
    std::size_t descriptors;
    int64_t blocks;
    int64_t resident; // bytes

    static State now() {
        State state{};
        state.threads = evidence::threads_left();
        state.descriptors = evidence::descriptor_count();
        state.blocks = block_count;
        state.resident = evidence::resident_bytes();
        return state;
    }
    bool same_as(const State& other) const {
        return threads == other.threads && descriptors == other.descriptors &&
               blocks == other.blocks && resident <= other.resident + kResidentSlack;
    }
    void print(const char* when, std::size_t cycle) const {
        std::fprintf(stderr,
                     "%s, cycle %zu: %zu threads, %zu descriptors, %lld blocks, %lld kB resident\n",
                     when, cycle, threads, descriptors, static_cast<long long>(blocks),
                     static_cast<long long>(resident / 1024));
    }
};

class Storm {
public:
    int run(std::size_t cycles) {
        std::vector<evidence::Cycle> round(kRound - 1, evidence::gap_cycle());
        round.push_back(evidence::replay_gap_cycle());
        const std::size_t rounds = (cycles + kWarmUp + kRound - 1) / kRound;
        card_.start(round, &keep_running_, rounds);
        card_.at_call = [this](evidence::Call call) { on_call(call); };
        current_ = this;
        set_update_md_callback([](instrument*) { ++current_->updates_; });
        char path[] = "feed.ini";
        const int result = ::vorn_recv(path, &keep_running_);
        card_.at_call = nullptr;
        last_.print("last", looked_at_);
        const std::size_t played = rounds * kRound;
        std::fprintf(stderr, "%zu cycles after a gap, %zu of them compared, %llu updates\n", played,
                     compared_, static_cast<unsigned long long>(updates_));
        const bool whole = result == 0 && compared_ >= cycles && updates_ == rounds * kLiveUpdates;
        if (!whole) {
            std::fprintf(stderr,
                         "restart_storm: the feed returned %d, not every cycle was played\n",
                         result);
        }
        return whole && differing_ == 0 ? 0 : 1;
    }

private:
    void on_call(evidence::Call call) {
        // The first poll behind a snapshot comes before the card has noticed the phase.
        if (call != evidence::Call::kPollDecode || card_.registers()[kRawPathSwitch] != 0 ||
            looked_at_ == card_.cycle()) {
            return;
        }
        looked_at_ = card_.cycle();
        last_ = State::now();
        if (looked_at_ <= kWarmUp) {
            warm_ = last_;
            if (looked_at_ == kWarmUp) {
                warm_.print("warm", looked_at_);
            }
            return;
        }
        ++compared_;
        if (!last_.same_as(warm_) && ++differing_ <= 5) {
            last_.print("DIFFERS", looked_at_);
        }
    }

    static constexpr uint32_t kRawPathSwitch = 512;
    static Storm* current_;
    evidence::FeedCard& card_ = evidence::FeedCard::instance();
    int keep_running_ = 1;
    std::size_t looked_at_ = 0; // number of the cycle
    std::size_t compared_ = 0;
    std::size_t differing_ = 0;
    uint64_t updates_ = 0;
    State warm_{};
    State last_{};
};

Storm* Storm::current_ = nullptr;

} // namespace

extern "C" void* malloc(size_t size) noexcept {
    return counted(__libc_malloc(size));
}
extern "C" void* calloc(size_t count, size_t size) noexcept {
    return counted(__libc_calloc(count, size));
}
extern "C" void* realloc(void* block, size_t size) noexcept {
    void* const moved = __libc_realloc(block, size);
    return block == nullptr ? counted(moved) : moved;
}
extern "C" int posix_memalign(void** block, size_t alignment, size_t size) noexcept {
    *block = counted(__libc_memalign(alignment, size));
    return *block == nullptr ? 12 : 0;
}
extern "C" void free(void* block) noexcept {
    block_count.fetch_sub(block == nullptr ? 0 : 1, std::memory_order_relaxed);
    __libc_free(block);
}

// On a busy machine a thread that yields waits for everybody else's turn; one that sleeps for a
// moment is soon let in again.
extern "C" int sched_yield() noexcept {
    ::usleep(20);
    return 0;
}

int main(int argc, char** argv) {
    const long cycles = argc == 2 ? std::strtol(argv[1], nullptr, 10) : 100;
    if (argc > 2 || cycles < 1) {
        std::fprintf(stderr, "usage: restart_storm [CYCLES]\n");
        return 2;
    }
    const evidence::ScratchDirectory directory;
    std::ofstream("feed.ini") << evidence::configuration("recovery = enabled\nlog_level = 7\n");
    const int nowhere = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (nowhere < 0 || ::dup2(nowhere, STDOUT_FILENO) < 0) { // where the feed logs
        std::perror("restart_storm");
        return 1;
    }
    return Storm().run(static_cast<std::size_t>(cycles));
}
