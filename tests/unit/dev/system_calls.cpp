#include "system_calls.h"

#include <dlfcn.h>
#include <sys/sysinfo.h>
#include <unistd.h>

namespace {

std::optional<int> processors;
std::optional<int> affinity_result;
std::function<void(useconds_t)> sleep_hook;
std::vector<system_calls::AffinityCall> calls;

template <typename Function>
Function* real(const char* name) {
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

} // namespace

namespace system_calls {

void reset() {
    processors.reset();
    affinity_result.reset();
    sleep_hook = nullptr;
    calls.clear();
}

void set_processors(int count) {
    processors = count;
}
void set_affinity_result(int result) {
    affinity_result = result;
}
void on_sleep(std::function<void(useconds_t)> hook) {
    sleep_hook = std::move(hook);
}
const std::vector<AffinityCall>& affinity_calls() {
    return calls;
}

} // namespace system_calls

extern "C" int get_nprocs() noexcept {
    return processors ? *processors : real<int()>("get_nprocs")();
}

extern "C" int sched_setaffinity(pid_t pid, size_t size, const cpu_set_t* set) noexcept {
    system_calls::AffinityCall call{pid, size, {}};
    for (int cpu = 0; cpu < static_cast<int>(size * 8); ++cpu) {
        if (CPU_ISSET_S(static_cast<size_t>(cpu), size, set)) {
            call.cpus.push_back(cpu);
        }
    }
    calls.push_back(call);
    return affinity_result
               ? *affinity_result
               : real<int(pid_t, size_t, const cpu_set_t*)>("sched_setaffinity")(pid, size, set);
}

extern "C" int usleep(useconds_t microseconds) {
    if (sleep_hook) {
        sleep_hook(microseconds);
        return 0;
    }
    return real<int(useconds_t)>("usleep")(microseconds);
}
