// counter CONFIG: counts the updates of the feed, and shows its phases as they come.
#include <vorn/ExanicMdImpl.h>
#include <vorn/ExanicMdMonitor.h>

#include <csignal>
#include <cstdio>

static int keep_running = 1;
static unsigned long updates = 0;

static void stop(int) {
    __atomic_store_n(&keep_running, 0, __ATOMIC_RELAXED);
}

static void tell(const vorn_md_event_t* event, void* restarts) {
    if (event->type == VORN_MD_EVENT_RESTART) {
        ++*static_cast<unsigned long*>(restarts);
    }
}

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: counter CONFIG\n");
        return 2;
    }
    unsigned long restarts = 0;
    std::signal(SIGINT, stop);
    set_update_md_callback([](instrument*) { ++updates; });
    vorn_md_set_event_callback(tell, &restarts);
    if (vorn_recv(argv[1], &keep_running) != 0) {
        return 1;
    }
    std::printf("updates %lu restarts %lu\n", updates, restarts);
    return 0;
}
