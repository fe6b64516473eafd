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
constexpr unsigned kRequestsPerRealCall = 512;
constexpr unsigned kRequestsPerLogging = 16;
constexpr unsigned kRequestsPerLongInput = 256;
unsigned inputs = 0;
unsigned requests = 0;
unsigned log_requests = 0;
unsigned long_requests = 0;
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

bool logging_is_due() {
    return always || log_requests++ % kRequestsPerLogging == 0;
}

bool long_input_is_due() {
    return always || long_requests++ % kRequestsPerLongInput == 0;
}

void always_check_deeply() {
    always = true;
}

__attribute__((no_sanitize("address"), no_sanitize("undefined"))) bool
is_same(const void* left, const void* right, std::size_t words) {
    const auto* one = static_cast<const uint64_t*>(left);
    const auto* other = static_cast<const uint64_t*>(right);
    uint64_t differs = 0;
    for (std::size_t i = 0; i < words; ++i) {
        differs |= one[i] ^ other[i];
    }
    return differs == 0;
}

} // namespace fuzz
