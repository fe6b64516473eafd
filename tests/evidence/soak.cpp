// The feed over a paced session for as long as one likes, with losses, repetitions, gaps and broken
// books strewn over it. Once a second, between two polls of the card:
//
// - every decode buffer and every raw frame that the card has handed out is counted by the feed,
// and
//   by the monitor's own identity as handled, ignored by a rule that has a name, lost, or in the
//   cache; so are lapped polls and lengths that nothing has;
// - the callback was called for every update that was not silent;
// - once the feed is warm, the resident memory of a live phase does not grow.
//
//     soak [SECONDS] [--seed N]
//
// The session goes by the clock, but nothing is judged by it: a feed that the machine holds up is
// lapped, counts that, and restarts.
//
// Exit status: 0 fine, 1 something did not hold, 2 usage.

#include "ExanicMdImpl.h"
#include "ExanicMdMonitor.h"
#include "process_state.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exanic/exanic.h>
#include <exanic/fifo_rx.h>
#include <fcntl.h>
#include <fstream>
#include <sched.h>
#include <string>
#include <unistd.h>

extern "C" {
ssize_t __real_exanic_receive_frame(exanic_rx_t* rx, char* buffer, size_t size,
                                    exanic_cycles32_t* timestamp);
exanic_rx_t* __real_exanic_acquire_rx_buffer(exanic_t* exanic, int port, int buffer);
}

namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kInterval = std::chrono::seconds(1);
// What the peak of one snapshot may leave with the C library: a late worker has more frames
// waiting.
constexpr int64_t kResidentSlack = 4 << 20;
constexpr ssize_t kLapped = -256;

int keep_running = 1;

// --- What the card has handed out, by port.

struct HandedOut {
    std::atomic<uint64_t> usable{0};
    std::atomic<uint64_t> lapped{0};
    std::atomic<uint64_t> abnormal{0};

    void count(ssize_t result, ssize_t smallest) {
        if (result >= smallest && result <= 2048) {
            ++usable;
        } else if (result == kLapped) {
            ++lapped;
        } else if (result != 0) {
            ++abnormal;
        }
    }
};
HandedOut decode_port;                           // caller's thread
HandedOut raw_port;                              // snapshot decoder's thread
std::atomic<const exanic_rx_t*> raw_rx{nullptr}; // the feed's newest
constexpr ssize_t kSmallest[] = {24, 15};        // usable length, by port
uint64_t callbacks = 0;

// --- Judging, on the caller's thread.

class Soak {
public:
    explicit Soak(std::chrono::seconds warm_up) : warm_at_(Clock::now() + warm_up) {}

    // All that was handed out by the decode port has been handled.
    void between_polls() {
        if (++polls_ % 64 != 0) {
            return;
        }
        const auto now = Clock::now();
        if (now < next_) {
            return;
        }
        next_ = now + kInterval;
        check(now);
    }
    void check(Clock::time_point now) {
        counters_.size = sizeof counters_;
        ::vorn_md_counters(&counters_);
        ++checks_;
        check_decode_port();
        const bool live = counters_.phase == VORN_MD_PHASE_LIVE;
        if (live || counters_.phase == VORN_MD_PHASE_STOPPED) {
            check_raw_port(); // the snapshot's threads have ended
        }
        if (live) {
            check_memory(now);
        }
    }
    int finish(int result) {
        check(Clock::now());
        expect("the feed's result is 0", static_cast<uint64_t>(result), 0);
        expect("there were updates", counters_.updates != 0 ? 1 : 0, 1);
        expect("memory was looked at", compared_ != 0 ? 1 : 0, 1);
        const auto n = [](uint64_t value) { return static_cast<unsigned long long>(value); };
        std::fprintf(stderr,
                     "%llu checks; %llu decode buffers: %llu updates, %llu stale, %llu "
                     "unsubscribed, %llu options, %llu restored, %llu gaps, %llu refused, %llu "
                     "dropped from the cache\n",
                     n(checks_), n(counters_.frames), n(counters_.updates), n(counters_.stale),
                     n(counters_.unsubscribed), n(counters_.options_skipped),
                     n(counters_.restored_books), n(counters_.gaps), n(counters_.refused),
                     n(counters_.cache_dropped));
        std::fprintf(stderr,
                     "%llu snapshot frames, %llu restarts, %llu overflows; resident %lld kB warm, "
                     "at most %lld kB in %llu live phases' checks since\n",
                     n(counters_.snapshot_frames), n(counters_.restarts), n(counters_.overflows),
                     static_cast<long long>(warm_resident_ / 1024),
                     static_cast<long long>(most_resident_ / 1024), n(compared_));
        return wrong_ == 0 ? 0 : 1;
    }

private:
    void check_decode_port() {
        const vorn_md_counters_t& c = counters_;
        expect("decode buffers handed out", c.frames, decode_port.usable);
        expect("laps of the decode port", c.overflows, decode_port.lapped);
        expect("abnormal lengths of the decode port", c.abnormal_lengths, decode_port.abnormal);
        const uint64_t in_cache = c.cached - c.replayed - c.cache_dropped;
        expect("frames = handled + ignored + lost + in the cache",
               c.updates + c.stale + c.unsubscribed + c.options_skipped + c.restored_books +
                   c.gaps + c.refused + c.cache_dropped + in_cache,
               c.frames);
        if (c.phase == VORN_MD_PHASE_LIVE) {
            expect("frames in the cache of a live feed", in_cache, 0);
        }
        expect("callbacks", c.updates - c.silent_updates, callbacks);
    }
    void check_raw_port() {
        const vorn_md_counters_t& c = counters_;
        expect("raw frames handed out", c.snapshot_frames, raw_port.usable);
        expect("laps of the raw port", c.snapshot_overflows, raw_port.lapped);
        expect("abnormal lengths of the raw port", c.snapshot_abnormal_lengths, raw_port.abnormal);
        uint64_t fates = 0;
        for (const uint64_t frames : c.snapshot_fate) {
            fates += frames;
        }
        expect("snapshot frames by their fate", fates, c.snapshot_frames);
    }
    void check_memory(Clock::time_point now) {
        const int64_t resident = evidence::resident_bytes();
        most_resident_ = std::max(most_resident_, resident);
        if (now < warm_at_ || warm_resident_ == 0) {
            warm_resident_ = most_resident_;
            return;
        }
        ++compared_;
        if (resident > warm_resident_ + kResidentSlack) {
            expect("resident memory, kB", static_cast<uint64_t>(resident / 1024),
                   static_cast<uint64_t>(warm_resident_ / 1024));
        }
    }
    void expect(const char* what, uint64_t got, uint64_t wanted) {
        if (got != wanted && ++wrong_ <= 10) {
            std::fprintf(stderr, "soak: check %llu, phase %u: %s: %llu instead of %llu\n",
                         static_cast<unsigned long long>(checks_), counters_.phase, what,
                         static_cast<unsigned long long>(got),
                         static_cast<unsigned long long>(wanted));
        }
    }

    const Clock::time_point warm_at_;
    Clock::time_point next_ = Clock::now() + kInterval;
    vorn_md_counters_t counters_{};
    uint64_t polls_ = 0;
    uint64_t checks_ = 0;
    uint64_t wrong_ = 0;
    int64_t warm_resident_ = 0;
    int64_t most_resident_ = 0;
    uint64_t compared_ = 0;
};

Soak* soak = nullptr;

// --- The session.

// Not all there are: the changes of the others are ignored.
constexpr char kProducts[] = "cu,al,zn,pb,ni,sn,au,ag,rb,wr,hc,ss,fu,bu,ru,sc,lu,nr";

// One fault after the other, evenly over the session.
std::string faults(long seconds) {
    constexpr const char* kKinds[] = {"gap",      "duplicate:20", "overflow:300",
                                      "bad-book", "truncate",     "line-a-loss:50",
                                      "reorder",  "wrong-topic",  "big-number:3"};
    constexpr long kMost = 90;
    const long step = std::max(2L, seconds / kMost);
    std::string text;
    std::size_t kind = 0;
    for (long at = 2; at + 2 < seconds; at += step, ++kind) {
        std::string fault = kKinds[kind % std::size(kKinds)];
        fault.insert(std::min(fault.find(':'), fault.size()), "@" + std::to_string(at));
        text += (text.empty() ? "" : "+") + fault;
    }
    return text;
}

std::string configuration(long seconds, const std::string& seed) {
    cpu_set_t usable;
    ::sched_getaffinity(0, sizeof usable, &usable);
    int cpu = CPU_SETSIZE - 1;
    while (!CPU_ISSET(cpu, &usable)) {
        --cpu;
    }
    const std::string fault = faults(seconds);
    return "[config]\ndevice = sim:seed=" + seed +
           "&instruments=200&changes=0&rate=4000&seconds=" + std::to_string(seconds) +
           "&first_round_ms=300&round_interval_ms=700&round_ms=100&speed=1&eof=stop" +
           (fault.empty() ? "" : "&fault=" + fault) + "\ninsts = " + kProducts +
           "\nshfe2ps = enabled\nine2ps = enabled\n"
           "recovery = enabled\nlog_level = 7\ncpucore = " +
           std::to_string(cpu) + "\n";
}

} // namespace

extern "C" {

exanic_rx_t* __wrap_exanic_acquire_rx_buffer(exanic_t* exanic, int port, int buffer) {
    exanic_rx_t* const rx = __real_exanic_acquire_rx_buffer(exanic, port, buffer);
    if (port == 1) {
        raw_rx = rx;
    }
    return rx;
}

ssize_t __wrap_exanic_receive_frame(exanic_rx_t* rx, char* buffer, size_t size,
                                    exanic_cycles32_t* timestamp) {
    const bool raw = rx == raw_rx;
    if (!raw) {
        soak->between_polls();
    }
    const ssize_t result = __real_exanic_receive_frame(rx, buffer, size, timestamp);
    (raw ? raw_port : decode_port).count(result, kSmallest[raw ? 1 : 0]);
    return result;
}

} // extern "C"

int main(int argc, char** argv) {
    long seconds = 30;
    std::string seed = "1";
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--seed") == 0 && i + 1 < argc) {
            seed = argv[++i];
        } else {
            seconds = std::strtol(argv[i], nullptr, 10);
        }
    }
    if (seconds < 6 || seed.find_first_not_of("0123456789") != std::string::npos) {
        std::fprintf(stderr, "usage: soak [SECONDS] [--seed N], 6 seconds and more\n");
        return 2;
    }
    const evidence::ScratchDirectory directory;
    std::ofstream("feed.ini") << configuration(seconds, seed);
    const int nowhere = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (nowhere < 0 || ::dup2(nowhere, STDOUT_FILENO) < 0) { // where the feed logs
        std::perror("soak");
        return 1;
    }
    for (const int number : {SIGINT, SIGTERM}) {
        std::signal(number, [](int) { __atomic_store_n(&keep_running, 0, __ATOMIC_RELAXED); });
    }
    set_update_md_callback([](instrument*) { ++callbacks; });
    Soak run(std::chrono::seconds(std::max(3L, std::min(60L, seconds / 3))));
    soak = &run;
    char path[] = "feed.ini";
    return run.finish(::vorn_recv(path, &keep_running));
}
