#include "system_calls.h"

#include "ExanicMdTypes.h"

#include <atomic>
#include <cerrno>
#include <ctime>
#include <dlfcn.h>
#include <new>
#include <sched.h>
#include <sys/shm.h>
#include <unistd.h>

namespace {

constexpr int64_t kRealClock = -1;

std::atomic<int64_t> wall_clock{kRealClock};
std::atomic<std::size_t> refused_size{0};

struct Watched {
    std::size_t size;
    std::atomic<void*> block{nullptr};
    std::atomic<std::size_t> alignment{0};
    std::atomic<int> requests{0};
};
Watched table_block{sizeof(share)};
Watched cache_block{CACHE_BUF_SIZE};

Watched* watched(std::size_t size) {
    return size == table_block.size   ? &table_block
           : size == cache_block.size ? &cache_block
                                      : nullptr;
}

int shmat_error = 0;
std::function<void(useconds_t)> sleep_hook; // set before any thread is started
thread_local uint64_t yield_count = 0;

template <typename Function>
Function* real(const char* name) {
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

} // namespace

namespace system_calls {

void reset() {
    wall_clock = kRealClock;
    refused_size = 0;
    for (Watched* each : {&table_block, &cache_block}) {
        each->block = nullptr;
        each->alignment = 0;
        each->requests = 0;
    }
    shmat_error = 0;
    sleep_hook = nullptr;
    yield_count = 0;
}

void set_wall_clock(int64_t seconds) {
    wall_clock = seconds;
}
void refuse_allocation(std::size_t size) {
    refused_size = size;
}
Allocation allocation_of(std::size_t size) {
    const Watched* const of = watched(size);
    return {of->block.load(), of->alignment.load(), of->requests.load()};
}
void* take_block(std::size_t size) {
    return watched(size)->block.exchange(nullptr);
}
void refuse_shmat(int error) {
    shmat_error = error;
}
void on_sleep(std::function<void(useconds_t)> hook) {
    sleep_hook = std::move(hook);
}
uint64_t& yields_of_this_thread() {
    return yield_count;
}

} // namespace system_calls

extern "C" int clock_gettime(clockid_t clock, timespec* time) noexcept {
    static auto* const next = real<int(clockid_t, timespec*)>("clock_gettime");
    const int64_t seconds = wall_clock.load();
    if (clock == CLOCK_REALTIME && seconds != kRealClock) {
        *time = {static_cast<time_t>(seconds), 0};
        return 0;
    }
    return next(clock, time);
}

extern "C" int posix_memalign(void** block, size_t alignment, size_t size) noexcept {
    static auto* const next = real<int(void**, size_t, size_t)>("posix_memalign");
    Watched* const of = watched(size);
    if (of != nullptr) {
        of->alignment = alignment;
        ++of->requests;
    }
    if (size != 0 && size == refused_size.load()) {
        return ENOMEM;
    }
    const int result = next(block, alignment, size);
    if (of != nullptr && result == 0) {
        of->block = *block;
    }
    return result;
}

// The cache comes from here, so that a failure is a null pointer and no exception.
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    void* block = nullptr;
    try {
        block = ::operator new[](size); // what the ordinary delete[] gives back
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
    Watched* const of = watched(size);
    if (of != nullptr) {
        of->block = block;
        ++of->requests;
    }
    return block;
}

extern "C" void* shmat(int id, const void* address, int flags) noexcept {
    if (shmat_error != 0) {
        errno = shmat_error;
        return reinterpret_cast<void*>(-1);
    }
    return real<void*(int, const void*, int)>("shmat")(id, address, flags);
}

extern "C" int usleep(useconds_t microseconds) {
    if (sleep_hook) {
        sleep_hook(microseconds);
    }
    return real<int(useconds_t)>("usleep")(microseconds);
}

extern "C" int sched_yield() noexcept {
    ++yield_count;
    static auto* const next = real<int()>("sched_yield");
    return next();
}
