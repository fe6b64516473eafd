#include "fuzz_input.h"

#include <cstdio>
#include <cstdlib>

// Freed memory is kept from reuse for a while, but not for so long that each allocation is a cache
// miss.
extern "C" const char* __asan_default_options();
extern "C" const char* __asan_default_options() {
    return "quarantine_size_mb=4:malloc_context_size=4";
}

namespace fuzz {
namespace {

constexpr unsigned kInputsPerDeepCheck = 16384;
constexpr unsigned kRequestsPerRealCall = 64;
unsigned inputs = 0;
unsigned requests = 0;
bool always = false;

} // namespace

void fail(const char* condition, const char* file, int line) {
    std::fprintf(stderr, "%s:%d: does not hold: %s\n", file, line, condition);
    std::abort();
}

bool deep_check_is_due() {
    return always || ++inputs % kInputsPerDeepCheck == 0;
}

bool real_call_is_due() {
    return always || requests++ % kRequestsPerRealCall == 0;
}

void always_check_deeply() {
    always = true;
}

} // namespace fuzz
