// Seeing every store to the filter tables' registers.
//
// A filter entry is two plain 32-bit stores, an address and at once a value, and 20480 such pairs
// go out back to back. Looking at the registers from time to time would see hardly any of them. So
// the program's view of the page is read-only and each store faults:
//
// - The SIGSEGV handler reads the faulting instruction. A plain move, which is all that a compiler
//   makes of the assignment, is carried out on the model's own view and stepped over (about 1.2
//   us). The page is never open, so stores of several threads cannot slip past each other.
// - Any other store opens the page for one instruction: the trap flag is set in the saved
//   flags, and the SIGTRAP that follows acts on what was stored and closes the page again (about
//   22 us). Other signals stay out of that one instruction. Another thread's store in the meantime
//   shows as a changed word of the page; only one of the value already there can go unseen.
//
// What must stay true: a fault that is not ours goes to whoever handled the signal before, or has
// the default effect; the handlers take no lock and allocate nothing; windows are found through
// atomics; a handler leaves errno alone.

#include "softcard/registers/store_trap.h"

#include "softcard/registers/register_window.h"
#include "softcard/registers/store_decoder.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <mutex>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

namespace softcard {

namespace {

constexpr std::size_t kMaxWindows = 64;
constexpr greg_t kTrapFlag = 0x100;    // in the saved flags
constexpr greg_t kWriteFault = 0x2;    // in the saved page-fault error code
constexpr std::size_t kKernelMask = 8; // bytes of the signal mask in a signal frame

std::array<std::atomic<RegisterWindow*>, kMaxWindows> windows;

std::mutex installing; // guards the three below, outside of handlers
std::size_t window_count = 0;
bool installed = false; // our handlers are in place, or behind someone's who came later
struct sigaction earlier_segv;
struct sigaction earlier_trap;

// The instruction that this thread is being stepped over, if `window` is set. Initial-exec, because
// the first access of a lazily made thread variable would allocate, here in a handler.
struct Step {
    RegisterWindow* window;
    uint32_t word;
    bool had_trap_flag;
    sigset_t mask;
};
[[gnu::tls_model("initial-exec")]] constinit thread_local Step step{};

RegisterWindow* find_window(uintptr_t address) {
    for (const auto& entry : windows) {
        RegisterWindow* const window = entry.load(std::memory_order_acquire);
        if (window != nullptr && window->trapped_word(address) != 0) {
            return window;
        }
    }
    return nullptr;
}

// The signal mask in a handler's frame is the kernel's, shorter than the C library's type.
sigset_t frame_mask(const ucontext_t& frame) {
    sigset_t mask;
    sigemptyset(&mask);
    std::memcpy(&mask, &frame.uc_sigmask, kKernelMask);
    return mask;
}

void set_frame_mask(ucontext_t& frame, const sigset_t& mask) {
    std::memcpy(&frame.uc_sigmask, &mask, kKernelMask);
}

void restore_after_step(ucontext_t& frame) {
    if (!step.had_trap_flag) {
        frame.uc_mcontext.gregs[REG_EFL] &= ~kTrapFlag;
    }
    set_frame_mask(frame, step.mask);
    step.window = nullptr;
}

void start_step(ucontext_t& frame, RegisterWindow& window, uint32_t word) {
    step.word = word;
    step.had_trap_flag = (frame.uc_mcontext.gregs[REG_EFL] & kTrapFlag) != 0;
    step.mask = frame_mask(frame);
    step.window = &window;
    sigset_t only_faults;
    sigfillset(&only_faults);
    for (const int fault : {SIGTRAP, SIGSEGV, SIGBUS, SIGILL, SIGFPE}) {
        sigdelset(&only_faults, fault);
    }
    set_frame_mask(frame, only_faults);
    frame.uc_mcontext.gregs[REG_EFL] |= kTrapFlag;
    window.begin_step();
}

// Carries the store out and steps over it; false for an instruction that has to be single-stepped.
bool emulate(ucontext_t& frame, RegisterWindow& window, uintptr_t address) {
    greg_t* const registers = frame.uc_mcontext.gregs;
    // NOLINTNEXTLINE(performance-no-int-to-ptr): the saved program counter is a number
    const auto* const code = reinterpret_cast<const uint8_t*>(registers[REG_RIP]);
    const auto store = decode_store(code, registers);
    if (!store || store->address != address || address % sizeof(uint32_t) != 0) {
        return false;
    }
    const uint32_t word = window.trapped_word(address);
    window.carry_out(word, static_cast<uint32_t>(store->value));
    if (store->width == 8) {
        window.carry_out(word + 1, static_cast<uint32_t>(store->value >> 32));
    }
    registers[REG_RIP] += store->length;
    return true;
}

// Hands a signal that is not ours to whoever had it before us, as if we were not there.
void pass_on(const struct sigaction& earlier, int number, siginfo_t* info, void* context) {
    const bool sent = info->si_code <= 0; // by a process, not raised by an instruction
    const bool has_handler = (earlier.sa_flags & SA_SIGINFO) != 0 ||
                             (earlier.sa_handler != SIG_DFL && earlier.sa_handler != SIG_IGN);
    if (!has_handler) {
        if (sent && earlier.sa_handler == SIG_IGN) {
            return;
        }
        struct sigaction fallback {};
        fallback.sa_handler = SIG_DFL;
        sigaction(number, &fallback, nullptr);
        // A fault comes again by itself. A sent signal and a trap, which is reported behind its
        // instruction, do not: this one is delivered when the handler returns.
        if (sent || number == SIGTRAP) {
            syscall(SYS_tgkill, getpid(), static_cast<pid_t>(syscall(SYS_gettid)), number);
        }
        return;
    }
    sigset_t mask = frame_mask(*static_cast<const ucontext_t*>(context));
    for (int other = 1; other < NSIG; ++other) {
        if (sigismember(&earlier.sa_mask, other) == 1) {
            sigaddset(&mask, other);
        }
    }
    if ((earlier.sa_flags & SA_NODEFER) == 0) {
        sigaddset(&mask, number);
    }
    pthread_sigmask(SIG_SETMASK, &mask, nullptr);
    if ((earlier.sa_flags & SA_SIGINFO) != 0) {
        earlier.sa_sigaction(number, info, context);
    } else {
        earlier.sa_handler(number);
    }
}

void on_segv(int number, siginfo_t* info, void* context) {
    const int saved_errno = errno;
    auto& frame = *static_cast<ucontext_t*>(context);
    const auto address = reinterpret_cast<uintptr_t>(info->si_addr);
    RegisterWindow* window = nullptr;
    if (info->si_code == SEGV_ACCERR && (frame.uc_mcontext.gregs[REG_ERR] & kWriteFault) != 0) {
        window = find_window(address);
    }
    if (window == nullptr) {
        if (step.window != nullptr) { // the instruction being stepped faulted elsewhere
            step.window->abandon_step();
            restore_after_step(frame);
        }
        errno = saved_errno;
        pass_on(earlier_segv, number, info, context);
        return;
    }
    if (step.window == window) {
        window->reopen_for_step(); // another thread's step closed the page under this one
    } else if (!emulate(frame, *window, address)) {
        start_step(frame, *window, window->trapped_word(address));
    }
    errno = saved_errno;
}

void on_trap(int number, siginfo_t* info, void* context) {
    const int saved_errno = errno;
    if (step.window == nullptr) {
        pass_on(earlier_trap, number, info, context);
        return;
    }
    RegisterWindow* const window = step.window;
    const bool program_steps_too = step.had_trap_flag;
    const uint32_t word = step.word;
    restore_after_step(*static_cast<ucontext_t*>(context));
    window->finish_step(word);
    errno = saved_errno;
    if (program_steps_too) {
        pass_on(earlier_trap, number, info, context);
    }
}

bool is_ours(int number, void (*handler)(int, siginfo_t*, void*)) {
    struct sigaction current {};
    return sigaction(number, nullptr, &current) == 0 && (current.sa_flags & SA_SIGINFO) != 0 &&
           current.sa_sigaction == handler;
}

bool install() {
    struct sigaction action {};
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    sigfillset(&action.sa_mask);
    action.sa_sigaction = on_segv;
    if (sigaction(SIGSEGV, &action, &earlier_segv) != 0) {
        return false;
    }
    action.sa_sigaction = on_trap;
    if (sigaction(SIGTRAP, &action, &earlier_trap) != 0) {
        sigaction(SIGSEGV, &earlier_segv, nullptr);
        return false;
    }
    return true;
}

} // namespace

bool trap_stores(RegisterWindow& window, std::string& error) {
    const std::lock_guard lock(installing);
    for (auto& entry : windows) {
        if (entry.load(std::memory_order_relaxed) != nullptr) {
            continue;
        }
        if (!installed && !install()) {
            error =
                std::string("no fault handler for the register window: ") + std::strerror(errno);
            return false;
        }
        installed = true;
        ++window_count;
        entry.store(&window, std::memory_order_release);
        return true;
    }
    error = "too many devices are open; at most " + std::to_string(kMaxWindows) + " can be";
    return false;
}

void untrap_stores(RegisterWindow& window) {
    const std::lock_guard lock(installing);
    for (auto& entry : windows) {
        if (entry.load(std::memory_order_relaxed) == &window) {
            entry.store(nullptr, std::memory_order_release);
            --window_count;
        }
    }
    // Someone who came after us may hold our handlers as theirs to pass faults on to: they stay.
    if (window_count == 0 && is_ours(SIGSEGV, on_segv) && is_ours(SIGTRAP, on_trap)) {
        sigaction(SIGSEGV, &earlier_segv, nullptr);
        sigaction(SIGTRAP, &earlier_trap, nullptr);
        installed = false;
    }
}

} // namespace softcard
