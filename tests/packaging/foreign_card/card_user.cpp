// card_user CONFIG: runs the feed on the card.
#include <vorn/ExanicMdImpl.h>

#include <csignal>

static int keep_running = 1;

static void stop(int) {
    __atomic_store_n(&keep_running, 0, __ATOMIC_RELAXED);
}

int main(int argc, char** argv) {
    std::signal(SIGINT, stop);
    set_update_md_callback([](instrument*) {});
    return argc == 2 && vorn_recv(argv[1], &keep_running) == 0 ? 0 : 1;
}
