#include "tests/unit/tcp/platform_stubs.h"

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <dlfcn.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

std::atomic<bool> g_clock_stopped{false};
std::atomic<time_t> g_stopped_at{0};
std::atomic<bool> g_threads_refused{false};
std::atomic<bool> g_joins_refused{false};

template <typename Function>
Function next_definition(const char* name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

} // namespace

extern "C" {

int clock_gettime(clockid_t clock, timespec* at) noexcept {
    if (clock == CLOCK_REALTIME && g_clock_stopped.load()) {
        at->tv_sec = g_stopped_at.load();
        at->tv_nsec = 999999999; // whole seconds count
        return 0;
    }
    return static_cast<int>(syscall(SYS_clock_gettime, clock, at));
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                   void* argument) noexcept {
    using Function = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    static const Function real = next_definition<Function>("pthread_create");
    return g_threads_refused.load() ? EAGAIN : real(thread, attributes, body, argument);
}

int pthread_join(pthread_t thread, void** result) {
    using Function = int (*)(pthread_t, void**);
    static const Function real = next_definition<Function>("pthread_join");
    return g_joins_refused.load() ? EINVAL : real(thread, result);
}

} // extern "C"

namespace tcp_test {

StoppedWallClock::StoppedWallClock(time_t seconds) {
    set(seconds);
    g_clock_stopped.store(true);
}
StoppedWallClock::~StoppedWallClock() {
    g_clock_stopped.store(false);
}
void StoppedWallClock::set(time_t seconds) {
    g_stopped_at.store(seconds);
}

NoNewThreads::NoNewThreads() {
    g_threads_refused.store(true);
}
NoNewThreads::~NoNewThreads() {
    g_threads_refused.store(false);
}

void refuse_joins() {
    g_joins_refused.store(true);
}

} // namespace tcp_test

#if TCP_TEST_ALLOCATION_STUB

namespace {
// Constant initialisation: malloc is called before and after everything else.
thread_local std::size_t t_refused_from = SIZE_MAX;
} // namespace

extern "C" {

void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);

void* malloc(std::size_t size) {
    return size >= t_refused_from ? nullptr : __libc_malloc(size);
}

void* calloc(std::size_t count, std::size_t size) {
    return count * size >= t_refused_from ? nullptr : __libc_calloc(count, size);
}

} // extern "C"

namespace tcp_test {

NoMemoryFor::NoMemoryFor(std::size_t size) {
    t_refused_from = size;
}
NoMemoryFor::~NoMemoryFor() {
    t_refused_from = SIZE_MAX;
}

} // namespace tcp_test

#endif
