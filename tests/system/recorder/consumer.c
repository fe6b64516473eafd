/* A consumer in C: counts the updates of a feed and prints the count and the last record. */

#include "ExanicMdImpl.h"

#include <signal.h>
#include <stdio.h>

static int keep_running = 1;
static unsigned long updates = 0;
static instrument last;

static void on_update(instrument* record) {
    ++updates;
    last = *record;
}

static void on_interrupt(int number) {
    (void)number;
    __atomic_store_n(&keep_running, 0, __ATOMIC_RELAXED);
}

int main(int argc, char** argv) {
    if (argc != 2) {
        return 2;
    }
    signal(SIGINT, on_interrupt);
    set_update_md_callback(on_update);
    const int result = vorn_recv(argv[1], &keep_running);
    printf("result %d, updates %lu, last %s change %u price %.2f\n", result, updates,
           (const char*)last.inst_id, last.change_no, last.last_px);
    return 0;
}
