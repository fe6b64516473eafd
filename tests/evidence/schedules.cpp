// Runs the feed's three threads in many orders, and stops it in every phase.
//
//     schedules [RUNS] [--first N]
//
// A run follows from its number: how often and for how long each thread is held up where it calls
// the card, the clock or sched_yield, whether the threads share a CPU or not, and at which of these
// calls the run flag drops. The market is a snapshot, a gap, a snapshot that fails its price check
// and a good one. Which order the kernel makes of it is not repeatable; what must hold is the same
// in all of them:
//
// - the result is 0 and no thread is left;
// - the updates are those of an undisturbed run, up to where the run was stopped;
// - behind "initialization completed" the table holds a snapshot that passed its check.
//
// Exit status: 0 fine, 1 a run in which that did not hold, or that did not end, 2 usage.

#include "ExanicMdImpl.h"
#include "cache_memory.h"
#include "feed_card.h"
#include "market_script.h"
#include "process_state.h"
#include "tests/support/log_capture.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fstream>
#include <map>
#include <memory>
#include <sched.h>
#include <string>
#include <time.h>
#include <unistd.h>
#include <vector>

namespace {

using evidence::Call;
using evidence::FeedCard;

template <typename Function>
Function* real(const char* name) {
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

// --- The places at which a thread can be held up, and the run flag can drop.

enum class Place : uint8_t {
    kBringUp,  // the card is acquired
    kCaching,  // caller's polls while the snapshot is loaded
    kRawPoll,  // decoder's polls
    kClock,    // decoder, behind each poll
    kYield,    // decoder or worker have nothing to do
    kDecode,   // caller's polls behind the snapshot: replay, then live
    kCallback, // caller
    kRelease,  // caller, at the end
    kNowhere,  // as a place to stop: never
};
constexpr const char* kPlaceNames[] = {"bring-up", "caching",  "raw poll", "clock", "yield",
                                       "decode",   "callback", "release",  "never"};
constexpr uint64_t kLastOrdinal[] = {2, 12, 40, 40, 20, 16, 10, 1, 1};
constexpr std::size_t kPlaces = std::size(kLastOrdinal);

// splitmix64
struct Random {
    uint64_t state;
    uint64_t next() {
        uint64_t z = state += 0x9E3779B97F4A7C15;
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EB;
        return z ^ (z >> 31);
    }
    uint64_t below(uint64_t limit) { return next() % limit; }
};

struct Plan {
    uint64_t number;
    bool one_cpu; // the threads share one, as the feed has it
    Place stop_at;
    uint64_t stop_ordinal;
    uint64_t hold_up_one_in[kPlaces]; // 0: never

    // Run 0 is left alone.
    static Plan of(uint64_t number) {
        Random random{number * 7919};
        Plan plan{number, random.below(2) == 0, static_cast<Place>(random.below(kPlaces)), 0, {}};
        if (number == 0) {
            plan.stop_at = Place::kNowhere;
            return plan;
        }
        plan.stop_ordinal = 1 + random.below(kLastOrdinal[static_cast<std::size_t>(plan.stop_at)]);
        for (uint64_t& one_in : plan.hold_up_one_in) {
            constexpr uint64_t kOften[] = {0, 50, 10, 2};
            one_in = kOften[random.below(4)];
        }
        return plan;
    }
};

struct Update {
    uint64_t slot;
    instrument record;
    bool operator==(const Update& other) const {
        return std::memcmp(this, &other, sizeof other) == 0;
    }
};

class Run;
std::atomic<Run*> current{nullptr};
share* table = nullptr;            // the last one allocated
thread_local bool held_up = false; // no place within a place

class Run {
public:
    explicit Run(const Plan& plan) : plan_(plan) {}

    void go(const std::vector<evidence::Cycle>& cycles) {
        FeedCard& card = FeedCard::instance();
        card.start(cycles, &keep_running_);
        card.at_call = [this, &card](Call call) { on_call(card, call); };
        current = this;
        set_update_md_callback([](instrument* record) { current.load()->on_update(record); });
        cpu_set_t affinity;
        ::sched_getaffinity(0, sizeof affinity, &affinity);
        const std::size_t threads = evidence::thread_count(); // a sanitizer has one of its own
        {
            const support::LogCapture capture(7);
            char path[] = "feed.ini";
            result_ = ::vorn_recv(path, &keep_running_);
            log_ = capture.text();
        }
        current = nullptr;
        ::sched_setaffinity(0, sizeof affinity, &affinity);
        card.at_call = nullptr;
        threads_left_ = evidence::threads_left(threads) - threads;
    }

    // Any thread of the feed.
    void at(Place place) {
        if (held_up) {
            return;
        }
        held_up = true;
        const auto index = static_cast<std::size_t>(place);
        const uint64_t ordinal = counts_[index].fetch_add(1) + 1;
        if (place == plan_.stop_at && ordinal == plan_.stop_ordinal) {
            stopped_ = true;
            __atomic_store_n(&keep_running_, 0, __ATOMIC_RELAXED);
        }
        const uint64_t one_in = plan_.hold_up_one_in[index];
        if (one_in != 0) {
            Random random{plan_.number ^ (index << 56) ^ (ordinal * 0x9E3779B97F4A7C15)};
            if (random.below(one_in) == 0) {
                hold_up(random);
            }
        }
        held_up = false;
    }

    bool one_cpu() const { return plan_.one_cpu; }
    bool stopped() const { return stopped_; }
    const std::vector<Update>& updates() const { return updates_; }
    const std::string& log() const { return log_; }

    // What does not hold; empty when all does.
    std::string judge(const std::vector<Update>& whole) const {
        if (result_ != 0) {
            return "result " + std::to_string(result_);
        }
        if (threads_left_ != 0) {
            return std::to_string(threads_left_) + " threads left";
        }
        if (updates_.size() > whole.size() ||
            !std::equal(updates_.begin(), updates_.end(), whole.begin())) {
            return "updates that differ from those of an undisturbed run";
        }
        if (!stopped_ && updates_.size() != whole.size()) {
            return "updates missing";
        }
        if (!unchecked_.empty()) {
            return unchecked_;
        }
        const std::size_t begin = log_.rfind("start initialization");
        const bool completed = begin != std::string::npos &&
                               log_.find("initialization completed", begin) != std::string::npos;
        return completed && !checked_at_end_ ? "completed without a checked snapshot" : "";
    }

private:
    void on_call(FeedCard& card, Call call) {
        switch (call) {
        case Call::kAcquire:
            at(Place::kBringUp);
            break;
        case Call::kPollRaw:
            at(Place::kRawPoll);
            break;
        case Call::kPollDecode: {
            const bool loading = card.registers()[512] == 1;
            if (!loading && !stopped_ && !snapshot_is_checked()) {
                unchecked_ = "live without a checked snapshot";
            }
            at(loading ? Place::kCaching : Place::kDecode);
            break;
        }
        case Call::kRelease:
            checked_at_end_ = snapshot_is_checked();
            at(Place::kRelease);
            break;
        }
    }

    // Caller's thread, once the snapshot's threads have ended.
    static bool snapshot_is_checked() {
        for (const uint32_t slot : {3U, 17U, 20479U}) {
            const uint32_t change_no = table->instmts[slot].change_no;
            if (change_no == 0 || change_no >= evidence::kRejectedChangeNo) {
                return false;
            }
        }
        return true;
    }

    void on_update(instrument* record) {
        Update update;
        std::memset(static_cast<void*>(&update), 0, sizeof update);
        update.slot = static_cast<uint64_t>(record - table->instmts);
        update.record = *record;
        updates_.push_back(update);
        at(Place::kCallback);
    }

    static void hold_up(Random& random) {
        const uint64_t how = random.below(16);
        if (how < 10) {
            static auto* const yield = real<int()>("sched_yield");
            for (uint64_t i = 0; i <= how; ++i) {
                yield();
            }
        } else {
            ::usleep(static_cast<useconds_t>(how == 15 ? random.below(1000) : random.below(60)));
        }
    }

    const Plan plan_;
    int keep_running_ = 1;
    std::atomic<bool> stopped_{false};
    std::atomic<uint64_t> counts_[kPlaces] = {};
    std::vector<Update> updates_;
    std::string unchecked_;
    bool checked_at_end_ = false;
    std::string log_;
    int result_ = 0;
    std::size_t threads_left_ = 0;
};

void at(Place place) {
    Run* const run = current.load();
    if (run != nullptr) {
        run->at(place);
    }
}

// --- A run that does not end.

constexpr unsigned kPatienceSeconds = 300;
std::atomic<uint64_t> running_number{0};

void on_alarm(int) {
    char text[64];
    const int size = std::snprintf(text, sizeof text, "run %llu does not end\n",
                                   static_cast<unsigned long long>(running_number));
    (void)!::write(STDERR_FILENO, text, static_cast<std::size_t>(size));
    ::_exit(1);
}

} // namespace

// --- In front of the C library's.

extern "C" int sched_yield() noexcept {
    static auto* const next = real<int()>("sched_yield");
    at(Place::kYield);
    // On a busy machine a thread that yields waits for everybody else's turn: not for ever.
    constexpr uint64_t kRealYields = 40;
    thread_local uint64_t yields = 0;
    if (++yields < kRealYields) {
        return next();
    }
    ::usleep(20);
    return 0;
}

extern "C" int clock_gettime(clockid_t clock, timespec* time) noexcept {
    static auto* const next = real<int(clockid_t, timespec*)>("clock_gettime");
    if (clock == CLOCK_REALTIME) {
        at(Place::kClock);
    }
    return next(clock, time);
}

extern "C" int sched_setaffinity(pid_t thread, size_t size, const cpu_set_t* set) noexcept {
    static auto* const next = real<int(pid_t, size_t, const cpu_set_t*)>("sched_setaffinity");
    const Run* const run = current.load();
    return run != nullptr && !run->one_cpu() ? 0 : next(thread, size, set);
}

extern "C" int posix_memalign(void** block, size_t alignment, size_t size) noexcept {
    static auto* const next = real<int(void**, size_t, size_t)>("posix_memalign");
    const int result = next(block, alignment, size);
    if (result == 0 && size == sizeof(share)) {
        table = static_cast<share*>(*block);
    }
    return result;
}

int main(int argc, char** argv) {
    uint64_t runs = 300;
    uint64_t first = 1;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--first") == 0 && i + 1 < argc) {
            first = std::strtoull(argv[++i], nullptr, 10);
        } else {
            runs = std::strtoull(argv[i], nullptr, 10);
        }
    }
    if (runs == 0 || first == 0) {
        std::fprintf(stderr, "usage: schedules [RUNS] [--first N]\n");
        return 2;
    }
    const evidence::ScratchDirectory directory;
    std::ofstream("feed.ini") << evidence::configuration("recovery = enabled\n");
    const std::vector<evidence::Cycle> cycles = {evidence::gap_cycle(),
                                                 evidence::rejected_then_quiet_cycle()};
    std::signal(SIGALRM, &on_alarm);
    Run plain(Plan::of(0));
    plain.go(cycles);
    std::map<std::string, uint64_t> stops;
    uint64_t wrong = plain.updates().empty() ? 1 : 0;
    for (uint64_t number = first; number < first + runs && wrong < 5; ++number) {
        ::alarm(kPatienceSeconds);
        running_number = number;
        const Plan plan = Plan::of(number);
        Run run(plan);
        run.go(cycles);
        ++stops[run.stopped() ? kPlaceNames[static_cast<std::size_t>(plan.stop_at)] : "never"];
        const std::string difference = run.judge(plain.updates());
        if (!difference.empty()) {
            ++wrong;
            std::printf("run %llu, to be stopped at %s %llu: %s\n%s\n",
                        static_cast<unsigned long long>(number),
                        kPlaceNames[static_cast<std::size_t>(plan.stop_at)],
                        static_cast<unsigned long long>(plan.stop_ordinal), difference.c_str(),
                        run.log().c_str());
        }
    }
    std::printf("%llu runs from %llu, stopped at:\n", static_cast<unsigned long long>(runs),
                static_cast<unsigned long long>(first));
    for (const auto& [place, count] : stops) {
        std::printf("%8llu  %s\n", static_cast<unsigned long long>(count), place.c_str());
    }
    return wrong == 0 ? 0 : 1;
}
