#include "tools/vorn/run_flag.h"

#include <csignal>
#include <unistd.h>

namespace vorn_cli {

namespace {

int keep_running = 0;
int caught_signal = 0;
int caught_from_outside = 0;
struct sigaction before_int {};
struct sigaction before_term {};

static_assert(__atomic_always_lock_free(sizeof(int), nullptr)); // else not for a handler

void on_signal(int number, siginfo_t* info, void*) {
    __atomic_store_n(&caught_signal, number, __ATOMIC_RELAXED);
    __atomic_store_n(&caught_from_outside, info->si_pid != ::getpid() ? 1 : 0, __ATOMIC_RELAXED);
    __atomic_store_n(&keep_running, 0, __ATOMIC_RELAXED);
    // Impatience ends the program at once.
    ::signal(SIGINT, SIG_DFL);
    ::signal(SIGTERM, SIG_DFL);
}

} // namespace

RunFlag::RunFlag() {
    __atomic_store_n(&caught_signal, 0, __ATOMIC_RELAXED);
    __atomic_store_n(&caught_from_outside, 0, __ATOMIC_RELAXED);
    __atomic_store_n(&keep_running, 1, __ATOMIC_RELAXED);
    // No SA_RESTART: a blocked read or sleep comes back and sees the flag. Also where a shell has
    // set SIGINT to be ignored (background jobs of scripts), because scripts stop runs with it.
    struct sigaction action {};
    action.sa_sigaction = on_signal;
    action.sa_flags = SA_SIGINFO;
    sigemptyset(&action.sa_mask);
    sigaddset(&action.sa_mask, SIGINT);
    sigaddset(&action.sa_mask, SIGTERM);
    ::sigaction(SIGINT, &action, &before_int);
    ::sigaction(SIGTERM, &action, &before_term);
}

RunFlag::~RunFlag() {
    ::sigaction(SIGINT, &before_int, nullptr);
    ::sigaction(SIGTERM, &before_term, nullptr);
}

int* RunFlag::flag() {
    return &keep_running;
}

bool RunFlag::running() const {
    return __atomic_load_n(&keep_running, __ATOMIC_RELAXED) != 0;
}

void RunFlag::stop() {
    stop_run();
}

void stop_run() {
    __atomic_store_n(&keep_running, 0, __ATOMIC_RELAXED);
}

bool RunFlag::interrupted() const {
    return __atomic_load_n(&caught_from_outside, __ATOMIC_RELAXED) != 0;
}

int RunFlag::signal() const {
    return __atomic_load_n(&caught_signal, __ATOMIC_RELAXED);
}

} // namespace vorn_cli
