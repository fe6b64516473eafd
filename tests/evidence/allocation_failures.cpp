// Lets the n-th allocation of a whole run of the feed fail, for n = 1, 2, ...: from bring-up over a
// snapshot, a gap and a second cycle to the last live update.
//
//     allocation_failures [--sites N]
//
// Every run is a process of its own. It must end in one of three ways: every update reported as
// without the failure; -1, with a line that says why and a beginning of the same updates; or the
// exit status 255 with its line, which is what the joining buffer of a session is worth. Never by a
// signal, never without an end, and never with a thread left running.
//
// Without --sites every allocation fails once; with it N of them, spread over all. The threads
// share the work differently from run to run, so that the same n is not always the same allocation.
//
// Exit status: 0 fine, 1 a run that ended otherwise, 2 usage.

#include "ExanicMdImpl.h"
#include "cache_memory.h"
#include "feed_card.h"
#include "market_script.h"
#include "process_state.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dlfcn.h>
#include <fstream>
#include <map>
#include <sched.h>
#include <string>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
}

namespace {

using evidence::Call;

// --- What is seen and what fails. All of it is read inside malloc: plain memory and atomics.

std::atomic<bool> armed{false};
std::atomic<uint64_t> allocation_count{0};
uint64_t failing_one = 0; // 0: none
std::atomic<std::size_t> failed_size{0};

bool fails(std::size_t size) {
    if (!armed.load(std::memory_order_relaxed)) {
        return false;
    }
    if (allocation_count.fetch_add(1) + 1 != failing_one) {
        return false;
    }
    failed_size = size;
    errno = ENOMEM;
    return true;
}

std::atomic<int64_t> clock_ahead{0}; // seconds that CLOCK_REALTIME is ahead

// --- What a run leaves behind, in memory that the parent shares.

constexpr std::size_t kMaxUpdates = 64;

struct Update {
    uint64_t slot;
    instrument record;
};

struct Outcome {
    bool returned;
    int result;
    std::size_t threads;
    uint64_t allocations;
    std::size_t failed_size;
    std::size_t update_count;
    std::array<Update, kMaxUpdates> updates;
};

Outcome* outcome = nullptr;
const share* table = nullptr;

void on_update(instrument* record) {
    if (outcome->update_count < kMaxUpdates) {
        Update& update = outcome->updates[outcome->update_count];
        update.slot = static_cast<uint64_t>(record - table->instmts);
        update.record = *record;
    }
    ++outcome->update_count;
}

// --- One run, in a process of its own.

constexpr unsigned kPatienceSeconds = 300;
constexpr auto kStalled = std::chrono::seconds(1);

// What a failure made the snapshot miss does not come again: let the time budget end the wait.
void run_out_of_time(uint64_t polls) {
    static std::chrono::steady_clock::time_point since;
    const auto now = std::chrono::steady_clock::now();
    if (polls == 1) {
        since = now;
    } else if (now - since > kStalled) {
        clock_ahead += 121;
    }
}

[[noreturn]] void run_once(const std::vector<evidence::Cycle>& cycles, int output, uint64_t site) {
    ::alarm(kPatienceSeconds);
    ::dup2(output, STDOUT_FILENO);
    ::dup2(output, STDERR_FILENO);
    failing_one = site;
    evidence::cache_refused = &fails;
    int keep_running = 1;
    evidence::FeedCard& card = evidence::FeedCard::instance();
    card.start(cycles, &keep_running);
    if (site != 0) {
        card.at_raw_end = &run_out_of_time;
    }
    set_update_md_callback(&on_update);
    char path[] = "feed.ini";
    armed = true;
    outcome->result = ::vorn_recv(path, &keep_running);
    armed = false;
    outcome->returned = true;
    outcome->allocations = allocation_count;
    outcome->failed_size = failed_size;
    outcome->threads = evidence::threads_left();
    ::_exit(0);
}

struct Ended {
    int status = 0;
    std::string text; // standard output and standard error
};

Ended run_in_child(const std::vector<evidence::Cycle>& cycles, uint64_t site) {
    std::memset(static_cast<void*>(outcome), 0, sizeof *outcome);
    const int output = ::memfd_create("output", 0);
    const pid_t child = ::fork();
    if (child == 0) {
        run_once(cycles, output, site);
    }
    Ended ended;
    while (::waitpid(child, &ended.status, 0) < 0 && errno == EINTR) {
    }
    ended.text = evidence::text_of(output);
    ::close(output);
    return ended;
}

// --- Judging.

// Why a run may end with -1: the line that says so.
constexpr const char* kReasons[] = {
    "failed to allocate share memor",
    "failed to allocate cache buffer",
    "the feed ended: ",
    "failed to initialize config data",
    "failed to initialize network device",
    "failed to start snapshot decoder thread: ",
    "snapshot decoder thread ended: ",
    "too many initialization failures",
};

bool is_beginning_of(const Outcome& part, const Outcome& whole) {
    return part.update_count <= whole.update_count &&
           std::memcmp(part.updates.data(), whole.updates.data(),
                       part.update_count * sizeof(Update)) == 0;
}

// How the run ended, in words that begin with "!" when it must not end so.
std::string judge(const Ended& ended, const Outcome& whole) {
    if (WIFSIGNALED(ended.status)) {
        return WTERMSIG(ended.status) == SIGALRM
                   ? "! no end"
                   : "! signal " + std::to_string(WTERMSIG(ended.status));
    }
    if (!outcome->returned) {
        const bool told =
            ended.text.find("failed to allocate memcory for fragment memory.") != std::string::npos;
        return WEXITSTATUS(ended.status) == 255 && told
                   ? "exit status 255, joining buffer"
                   : "! exit status " + std::to_string(WEXITSTATUS(ended.status));
    }
    if (outcome->threads != 1) {
        return "! " + std::to_string(outcome->threads - 1) + " threads left";
    }
    if (!is_beginning_of(*outcome, whole)) {
        return "! updates that differ from those without a failure";
    }
    if (outcome->result == 0) {
        return outcome->update_count == whole.update_count ? "0, every update"
                                                           : "! 0 with updates missing";
    }
    for (const char* reason : kReasons) {
        if (outcome->result == -1 && ended.text.find(reason) != std::string::npos) {
            return std::string("-1, ") + reason;
        }
    }
    return "! result " + std::to_string(outcome->result) + " without a word";
}

int usage() {
    std::fprintf(stderr, "usage: allocation_failures [--sites N]\n");
    return 2;
}

} // namespace

// --- In front of the C library's.

extern "C" void* malloc(size_t size) noexcept {
    return fails(size) ? nullptr : __libc_malloc(size);
}
extern "C" void* calloc(size_t count, size_t size) noexcept {
    return fails(count * size) ? nullptr : __libc_calloc(count, size);
}
extern "C" void* realloc(void* block, size_t size) noexcept {
    return fails(size) ? nullptr : __libc_realloc(block, size);
}
extern "C" int posix_memalign(void** block, size_t alignment, size_t size) noexcept {
    if (fails(size)) {
        return ENOMEM;
    }
    *block = __libc_memalign(std::max(alignment, sizeof(void*)), size);
    if (size == sizeof(share)) {
        table = static_cast<const share*>(*block);
    }
    return *block == nullptr ? ENOMEM : 0;
}

// On a busy machine a thread that yields waits for everybody else's turn; one that sleeps for a
// moment is soon let in again.
extern "C" int sched_yield() noexcept {
    ::usleep(20);
    return 0;
}

extern "C" int clock_gettime(clockid_t clock, timespec* time) noexcept {
    static auto* const next =
        reinterpret_cast<int (*)(clockid_t, timespec*)>(::dlsym(RTLD_NEXT, "clock_gettime"));
    const int result = next(clock, time);
    if (clock == CLOCK_REALTIME) {
        time->tv_sec += clock_ahead;
    }
    return result;
}

int main(int argc, char** argv) {
    uint64_t sites = 0; // every one
    if (argc == 3 && std::strcmp(argv[1], "--sites") == 0) {
        sites = std::strtoull(argv[2], nullptr, 10);
    } else if (argc != 1) {
        return usage();
    }
    const evidence::ScratchDirectory directory;
    std::ofstream("feed.ini") << evidence::configuration("timeout_cnt = 1\nrecovery = enabled\n");
    const std::vector<evidence::Cycle> cycles = {evidence::gap_cycle(),
                                                 evidence::rejected_then_quiet_cycle()};
    outcome = static_cast<Outcome*>(::mmap(nullptr, sizeof(Outcome), PROT_READ | PROT_WRITE,
                                           MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    if (outcome == MAP_FAILED) {
        std::perror("allocation_failures");
        return 1;
    }
    timespec now;
    ::clock_gettime(CLOCK_REALTIME, &now); // looks its name up, which allocates

    const Ended plain = run_in_child(cycles, 0);
    const Outcome whole = *outcome;
    if (!whole.returned || whole.result != 0 || whole.update_count == 0) {
        std::printf("the run without a failure: result %d, %zu updates\n%s\n", whole.result,
                    whole.update_count, plain.text.c_str());
        return 1;
    }
    sites = sites == 0 ? whole.allocations : std::min(sites, whole.allocations);
    std::map<std::string, int> endings;
    int wrong = 0;
    for (uint64_t i = 0; i < sites; ++i) {
        const uint64_t site = 1 + i * whole.allocations / sites;
        const Ended ended = run_in_child(cycles, site);
        const std::string ending = judge(ended, whole);
        ++endings[ending];
        if (ending[0] == '!') {
            ++wrong;
            std::printf("allocation %llu (%zu bytes): %s\n%s\n",
                        static_cast<unsigned long long>(site), outcome->failed_size,
                        ending.c_str() + 2, ended.text.c_str());
        }
    }
    std::printf("%llu of about %llu allocations failed, %zu updates without\n",
                static_cast<unsigned long long>(sites),
                static_cast<unsigned long long>(whole.allocations), whole.update_count);
    for (const auto& [ending, count] : endings) {
        std::printf("%6d  %s\n", count, ending.c_str());
    }
    return wrong == 0 ? 0 : 1;
}
