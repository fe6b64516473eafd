#include "local_time.h"

#include <atomic>
#include <dlfcn.h>

namespace {

// Set by a test before it starts threads.
bool is_set = false;
std::tm answer{};
std::atomic<int> failures{0};
std::atomic<int> call_count{0};
std::atomic<std::time_t> argument{0};

using LocalTime = std::tm* (*)(const std::time_t*, std::tm*);

} // namespace

namespace local_time {

void set(const std::tm& when) {
    answer = when;
    is_set = true;
}

void fail(int calls) {
    failures = calls;
}

int calls() {
    return call_count;
}

std::time_t last_argument() {
    return argument;
}

std::tm at(int year, int month, int day, int hour, int minute, int second) {
    std::tm when{};
    when.tm_year = year - 1900;
    when.tm_mon = month - 1;
    when.tm_mday = day;
    when.tm_hour = hour;
    when.tm_min = minute;
    when.tm_sec = second;
    return when;
}

} // namespace local_time

extern "C" std::tm* localtime_r(const std::time_t* timer, std::tm* result) noexcept {
    ++call_count;
    argument = *timer;
    int left = failures.load();
    while (left > 0 && !failures.compare_exchange_weak(left, left - 1)) {
    }
    if (left != 0) {
        return nullptr;
    }
    if (is_set) {
        *result = answer;
        return result;
    }
    static const auto real = reinterpret_cast<LocalTime>(::dlsym(RTLD_NEXT, "localtime_r"));
    return real(timer, result);
}
