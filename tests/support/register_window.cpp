#include "register_window.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <sys/mman.h>
#include <system_error>
#include <ucontext.h>
#include <unistd.h>

#if !defined(__x86_64__)
#error "the register window decodes x86-64 instructions"
#endif

namespace support {
namespace {

constexpr std::size_t kWindowBytes = RegisterWindow::kWords * sizeof(uint32_t);
constexpr std::size_t kPageBytes = 4096;
constexpr greg_t kTrapFlag = 0x100;
constexpr greg_t kWriteFault = 0x2;

// All of it is touched by signal handlers: plain memory and lock-free atomics only.
uint8_t* guarded_view = nullptr;
uint8_t* writable_view = nullptr;
RegisterWindow::Record* record_array = nullptr;
std::atomic<std::size_t> store_count{0};
std::atomic<std::size_t> unusual_count{0};
struct sigaction previous_segv;
struct sigaction previous_trap;

// Byte offset of the store that the current thread is single-stepping over, or -1.
thread_local std::ptrdiff_t stepping_offset = -1;

uint32_t load_word(std::size_t word) {
    return __atomic_load_n(reinterpret_cast<uint32_t*>(writable_view) + word, __ATOMIC_RELAXED);
}

void keep_record(std::size_t word, uint32_t value) {
    const std::size_t at = store_count.fetch_add(1, std::memory_order_relaxed);
    if (at < RegisterWindow::kMaxRecords) {
        record_array[at] = {static_cast<uint32_t>(word), value};
    }
}

// mov r32 -> m32 and mov imm32 -> m32. `length` is the instruction's, `value` what it stores.
bool decode_store(const uint8_t* code, const greg_t* registers, std::size_t& length,
                  uint32_t& value) {
    static constexpr int kRegisterOrder[16] = {REG_RAX, REG_RCX, REG_RDX, REG_RBX, REG_RSP, REG_RBP,
                                               REG_RSI, REG_RDI, REG_R8,  REG_R9,  REG_R10, REG_R11,
                                               REG_R12, REG_R13, REG_R14, REG_R15};
    std::size_t at = 0;
    unsigned rex = 0;
    if ((code[at] & 0xF0) == 0x40) {
        rex = code[at++];
    }
    const unsigned opcode = code[at++];
    if ((rex & 8) != 0 || (opcode != 0x89 && opcode != 0xC7)) {
        return false;
    }
    const unsigned mod_rm = code[at++];
    const unsigned mod = mod_rm >> 6;
    const unsigned reg = (mod_rm >> 3) & 7;
    const unsigned rm = mod_rm & 7;
    std::size_t displacement = mod == 1 ? 1 : mod == 2 ? 4 : 0;
    if (rm == 4) {
        const unsigned sib = code[at++];
        if (mod == 0 && (sib & 7) == 5) {
            displacement = 4;
        }
    } else if (mod == 0 && rm == 5) {
        displacement = 4;
    }
    at += displacement;
    if (mod == 3) {
        return false;
    }
    if (opcode == 0xC7) {
        if (reg != 0) {
            return false;
        }
        std::memcpy(&value, code + at, sizeof value);
        at += sizeof value;
    } else {
        value = static_cast<uint32_t>(registers[kRegisterOrder[reg | ((rex & 4) << 1)]]);
    }
    length = at;
    return true;
}

void hand_on(const struct sigaction& previous, int number, siginfo_t* info, void* context) {
    if ((previous.sa_flags & SA_SIGINFO) != 0) {
        previous.sa_sigaction(number, info, context);
    } else if (previous.sa_handler != SIG_DFL && previous.sa_handler != SIG_IGN) {
        previous.sa_handler(number);
    } else {
        // Pending until this handler returns, then with the default effect.
        ::sigaction(number, &previous, nullptr);
        ::raise(number);
    }
}

void on_segv(int number, siginfo_t* info, void* context) {
    greg_t* registers = static_cast<ucontext_t*>(context)->uc_mcontext.gregs;
    const auto* address = static_cast<const uint8_t*>(info->si_addr);
    if (guarded_view == nullptr || address < guarded_view ||
        address >= guarded_view + kWindowBytes || (registers[REG_ERR] & kWriteFault) == 0) {
        hand_on(previous_segv, number, info, context);
        return;
    }
    const std::ptrdiff_t offset = address - guarded_view;
    const auto* code = reinterpret_cast<const uint8_t*>(registers[REG_RIP]);
    std::size_t length = 0;
    uint32_t value = 0;
    if (offset % 4 == 0 && decode_store(code, registers, length, value)) {
        const auto word = static_cast<std::size_t>(offset) / 4;
        __atomic_store_n(reinterpret_cast<uint32_t*>(writable_view) + word, value,
                         __ATOMIC_RELAXED);
        keep_record(word, value);
        registers[REG_RIP] += static_cast<greg_t>(length);
        return;
    }
    unusual_count.fetch_add(1, std::memory_order_relaxed);
    stepping_offset = offset;
    registers[REG_EFL] |= kTrapFlag;
    ::mprotect(guarded_view + offset / static_cast<std::ptrdiff_t>(kPageBytes) *
                                  static_cast<std::ptrdiff_t>(kPageBytes),
               kPageBytes, PROT_READ | PROT_WRITE);
}

void on_trap(int number, siginfo_t* info, void* context) {
    if (stepping_offset < 0) {
        hand_on(previous_trap, number, info, context);
        return;
    }
    const auto offset = static_cast<std::size_t>(stepping_offset);
    stepping_offset = -1;
    ::mprotect(guarded_view + offset / kPageBytes * kPageBytes, kPageBytes, PROT_READ);
    static_cast<ucontext_t*>(context)->uc_mcontext.gregs[REG_EFL] &= ~kTrapFlag;
    keep_record(offset / 4, load_word(offset / 4));
}

uint8_t* map_view(int fd, int protection) {
    void* view = ::mmap(nullptr, kWindowBytes, protection, MAP_SHARED, fd, 0);
    if (view == MAP_FAILED) {
        throw std::system_error(errno, std::generic_category(), "mmap of the register window");
    }
    return static_cast<uint8_t*>(view);
}

void install(int number, void (*handler)(int, siginfo_t*, void*), struct sigaction& previous) {
    struct sigaction action {};
    action.sa_sigaction = handler;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    sigemptyset(&action.sa_mask);
    if (::sigaction(number, &action, &previous) != 0) {
        throw std::system_error(errno, std::generic_category(), "sigaction");
    }
}

} // namespace

RegisterWindow::RegisterWindow() {
    const int fd = ::memfd_create("register-window", MFD_CLOEXEC);
    if (fd < 0 || ::ftruncate(fd, static_cast<off_t>(kWindowBytes)) != 0) {
        throw std::system_error(errno, std::generic_category(), "memfd of the register window");
    }
    writable_view = map_view(fd, PROT_READ | PROT_WRITE);
    record_array = new Record[kMaxRecords];
    // Touched now, so that a signal handler meets no page fault of its own.
    std::memset(record_array, 0, kMaxRecords * sizeof(Record));
    install(SIGSEGV, on_segv, previous_segv);
    install(SIGTRAP, on_trap, previous_trap);
    guarded_view = map_view(fd, PROT_READ);
    ::close(fd);
}

RegisterWindow& RegisterWindow::instance() {
    static RegisterWindow& window = *new RegisterWindow; // used by handlers until the process ends
    return window;
}

void RegisterWindow::record(bool on) {
    if (::mprotect(guarded_view, kWindowBytes, on ? PROT_READ : PROT_READ | PROT_WRITE) != 0) {
        throw std::system_error(errno, std::generic_category(), "mprotect");
    }
}

void RegisterWindow::clear_records() {
    store_count.store(0);
    unusual_count.store(0);
}

void RegisterWindow::zero() {
    std::memset(writable_view, 0, kWindowBytes);
}

std::size_t RegisterWindow::size() const {
    const std::size_t count = store_count.load();
    return count < kMaxRecords ? count : kMaxRecords;
}

const RegisterWindow::Record* RegisterWindow::records() const {
    return record_array;
}

std::size_t RegisterWindow::dropped() const {
    return store_count.load() - size();
}

std::size_t RegisterWindow::unusual() const {
    return unusual_count.load();
}

volatile uint32_t* RegisterWindow::guarded() const {
    return reinterpret_cast<volatile uint32_t*>(guarded_view);
}

volatile uint32_t* RegisterWindow::writable() const {
    return reinterpret_cast<volatile uint32_t*>(writable_view);
}

} // namespace support
