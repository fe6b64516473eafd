// G10: what the live loop and caching ask of the system: allocations, system calls, page faults.
// Counted, not timed: allocations by standing in front of the allocator, system calls by a parent
// process that stops at each of them, faults by the kernel.

#include "bench/harness/contest.h"
#include "bench/harness/report.h"
#include "bench/reference/feed_parts.h"
#include "bench/reference/live_stream.h"

#include "CommonLog.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {
uint64_t g_allocations = 0;
}

extern "C" {
void* __libc_malloc(std::size_t size);                    // NOLINT(bugprone-reserved-identifier)
void* __libc_calloc(std::size_t count, std::size_t size); // NOLINT(bugprone-reserved-identifier)
void* __libc_realloc(void* block, std::size_t size);      // NOLINT(bugprone-reserved-identifier)

void* malloc(std::size_t size) {
    ++g_allocations;
    return __libc_malloc(size);
}
void* calloc(std::size_t count, std::size_t size) {
    ++g_allocations;
    return __libc_calloc(count, size);
}
void* realloc(void* block, std::size_t size) {
    ++g_allocations;
    return __libc_realloc(block, size);
}
}

namespace {

using namespace bench;

constexpr uint32_t kInstruments = 800;
constexpr uint32_t kMessages = 1'000'000;

struct Counts {
    uint64_t allocations;
    uint64_t faults;
};

uint64_t page_faults() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<uint64_t>(usage.ru_minflt + usage.ru_majflt);
}

// What the parent looks for: a call that nothing here makes otherwise.
void mark() {
    syscall(SYS_getppid);
}

Counts count_between_marks(const std::function<void()>& loop) {
    const uint64_t faults = page_faults();
    const uint64_t allocations = g_allocations;
    mark();
    loop();
    mark();
    return {g_allocations - allocations, page_faults() - faults};
}

// Runs `child` under the eyes of this process; the number of system calls between its marks.
uint64_t system_calls_of(const std::function<void()>& child) {
    const pid_t pid = fork();
    if (pid == 0) {
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        raise(SIGSTOP);
        child();
        _exit(0);
    }
    int status = 0;
    uint64_t marks = 0;
    uint64_t calls = 0;
    bool entering = true;
    waitpid(pid, &status, 0);
    ptrace(PTRACE_SETOPTIONS, pid, nullptr, PTRACE_O_TRACESYSGOOD);
    while (!WIFEXITED(status) && !WIFSIGNALED(status)) {
        ptrace(PTRACE_SYSCALL, pid, nullptr, nullptr);
        waitpid(pid, &status, 0);
        if (!WIFSTOPPED(status) || WSTOPSIG(status) != (SIGTRAP | 0x80)) {
            continue;
        }
        if (entering) {
            user_regs_struct registers_now{};
            ptrace(PTRACE_GETREGS, pid, nullptr, &registers_now);
            if (registers_now.orig_rax == SYS_getppid) {
                ++marks;
            } else if (marks == 1) {
                ++calls;
            }
        }
        entering = !entering;
    }
    if (marks != 2) {
        std::fprintf(stderr, "bench: the counted process did not get through\n");
        std::exit(1);
    }
    return calls;
}

void ask(const std::string& name, IncrementalFeed& feed, const FrameList& frames,
         const std::function<void()>& loop) {
    const auto reset = [&] {
        feed.reset();
        serve(frames);
    };
    const auto all = [&] {
        reset();
        loop(); // every page and cache that a running feed has touched
        reset();
        return count_between_marks(loop);
    };
    const uint64_t calls = system_calls_of([&] { (void)all(); });
    const Counts counts = all();
    report_goal({"G10", name + ": allocations", static_cast<double>(counts.allocations),
                 Better::kSmaller, 0, 0, ""});
    report_goal(
        {"G10", name + ": system calls", static_cast<double>(calls), Better::kSmaller, 0, 0, ""});
    report_goal({"G10", name + ": page faults", static_cast<double>(counts.faults),
                 Better::kSmaller, 0, 0, ""});
}

} // namespace

int main() {
    report_run("hot_path", pin_to_one_processor());
    CCommonLog::GetInstance()->SetLogLevel(static_cast<ELOGLEVEL>(7));
    IncrementalFeed feed(kInstruments);
    const FrameList frames = make_live_stream(kInstruments, kMessages);
    ask("live loop", feed, frames, [&] {
        for (uint32_t n = 0; n < kMessages; ++n) {
            if (feed.channel->UdpRecv() == RET_TO_CALLBACK) {
                feed.call_back();
            }
        }
    });
    ask("caching", feed, frames, [&] {
        for (uint32_t n = 0; n < kMessages; ++n) {
            feed.channel->CachePacket();
        }
    });
    return 0;
}
