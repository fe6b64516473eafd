#include "refusals.h"

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <dlfcn.h>
#include <pthread.h>

namespace {

// Constant initialisation: malloc is called before and after everything else.
constinit std::atomic<std::size_t> smallest_refused{SIZE_MAX};
constinit std::atomic<std::size_t> largest_refused{0};
constinit std::atomic<bool> threads_refused{false};

} // namespace

extern "C" {

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                   void* argument) noexcept {
    using Function = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    static const auto real = reinterpret_cast<Function>(::dlsym(RTLD_NEXT, "pthread_create"));
    return threads_refused.load() ? EAGAIN : real(thread, attributes, body, argument);
}

#if FEED_TEST_ALLOCATION_STUB
void* __libc_malloc(std::size_t size);

void* malloc(std::size_t size) {
    return size >= smallest_refused.load() && size <= largest_refused.load() ? nullptr
                                                                             : __libc_malloc(size);
}
#endif

} // extern "C"

namespace refusals {

NoMemoryFor::NoMemoryFor(std::size_t smallest, std::size_t largest) {
    largest_refused = largest;
    smallest_refused = smallest;
}
NoMemoryFor::~NoMemoryFor() {
    smallest_refused = SIZE_MAX;
}

NoNewThreads::NoNewThreads() {
    threads_refused = true;
}
NoNewThreads::~NoNewThreads() {
    threads_refused = false;
}

} // namespace refusals
