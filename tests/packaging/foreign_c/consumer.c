/* consumer CONFIG: counts the updates of the feed until Ctrl+C, or until its source ends. */
#include <signal.h>
#include <stdio.h>

#include <vorn/ExanicMdImpl.h>
#include <vorn/ExanicMdMonitor.h>

static int keep_running = 1;
static unsigned long updates;

static void stop(int signal_number) {
    (void)signal_number;
    __atomic_store_n(&keep_running, 0, __ATOMIC_RELAXED);
}

static void notify(instrument* p) { /* on the thread that called vorn_recv */
    if (p->bid_px[0] <= p->ask_px[0] || p->ask_vol[0] == 0) {
        updates++;
    }
}

int main(int argc, char** argv) {
    vorn_md_counters_t counters = {.size = sizeof(counters)};
    if (argc != 2) {
        fprintf(stderr, "usage: consumer CONFIG\n");
        return 2;
    }
    signal(SIGINT, stop);
    set_update_md_callback(notify);
    if (vorn_recv(argv[1], &keep_running) != 0) {
        return 1;
    }
    vorn_md_counters(&counters);
    printf("updates %lu restarts %llu\n", updates, (unsigned long long)counters.restarts);
    return 0;
}
