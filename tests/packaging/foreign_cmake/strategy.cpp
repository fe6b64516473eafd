// strategy CONFIG: sees how often the best bid of each instrument rises.
#include "ExanicMdImpl.h"
#include "ExanicMdMonitor.h"

#include <csignal>
#include <cstdio>
#include <map>
#include <string>

namespace {

int keep_running = 1;
unsigned long updates = 0;
std::map<std::string, double> best_bids;
unsigned long rises = 0;

void stop(int) {
    __atomic_store_n(&keep_running, 0, __ATOMIC_RELAXED);
}

void notify(instrument* p) {
    ++updates;
    double& best = best_bids[reinterpret_cast<const char*>(p->inst_id)];
    rises += p->bid_px[0] > best ? 1 : 0;
    best = p->bid_px[0];
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: strategy CONFIG\n");
        return 2;
    }
    std::signal(SIGINT, stop);
    set_update_md_callback(notify);
    if (vorn_recv(argv[1], &keep_running) != 0) {
        return 1;
    }
    vorn_md_counters_t counters{};
    counters.size = sizeof(counters);
    vorn_md_counters(&counters);
    std::printf("updates %lu restarts %llu\n", updates,
                static_cast<unsigned long long>(counters.restarts));
    std::fprintf(stderr, "%zu instruments, %lu rises\n", best_bids.size(), rises);
    return 0;
}
