#include "softcard/registers/register_window.h"

#include "softcard/registers/store_trap.h"

#include <cerrno>
#include <cstring>
#include <sys/mman.h>
#include <unistd.h>

namespace softcard {

namespace {

constexpr std::size_t kWindowBytes = kWindowWords * sizeof(uint32_t);
constexpr std::size_t kPageBytes = kPageWords * sizeof(uint32_t);

std::string system_text(const char* what) {
    return std::string(what) + ": " + std::strerror(errno);
}

uint8_t* map_window(int memory) {
    void* const at = mmap(nullptr, kWindowBytes, PROT_READ | PROT_WRITE, MAP_SHARED, memory, 0);
    return at == MAP_FAILED ? nullptr : static_cast<uint8_t*>(at);
}

} // namespace

std::unique_ptr<RegisterWindow> RegisterWindow::create(std::string& error) {
    if (sysconf(_SC_PAGESIZE) != static_cast<long>(kPageBytes)) {
        error = "the register window needs pages of 4096 bytes";
        return nullptr;
    }
    const int memory = memfd_create("softcard-registers", MFD_CLOEXEC);
    if (memory < 0) {
        error = system_text("no memory for the register window");
        return nullptr;
    }
    std::unique_ptr<RegisterWindow> window(new RegisterWindow);
    if (ftruncate(memory, static_cast<off_t>(kWindowBytes)) == 0) {
        window->model_ = reinterpret_cast<uint32_t*>(map_window(memory));
        window->program_ = reinterpret_cast<volatile uint32_t*>(map_window(memory));
    }
    const int reason = errno;
    close(memory);
    if (window->model_ == nullptr || window->program_ == nullptr) {
        errno = reason;
        error = system_text("no memory for the register window");
        return nullptr;
    }
    window->model_[kVersionWord] = kVersionValue;
    window->model_[kBuildWord] = kBuildValue;
    window->close_page();
    if (!trap_stores(*window, error)) {
        return nullptr;
    }
    window->trapping_ = true;
    return window;
}

RegisterWindow::~RegisterWindow() {
    if (trapping_) {
        untrap_stores(*this);
    }
    if (program_ != nullptr) {
        munmap(const_cast<uint32_t*>(program_), kWindowBytes);
    }
    if (model_ != nullptr) {
        munmap(model_, kWindowBytes);
    }
}

bool RegisterWindow::filter_entry(Exchange exchange, uint32_t instrument_no) const {
    if (exchange == Exchange::kShfe) {
        return instrument_no < kShfeEntries &&
               shfe_[instrument_no].load(std::memory_order_acquire) == 1;
    }
    return instrument_no < kIneEntries && ine_[instrument_no].load(std::memory_order_acquire) == 1;
}

uint64_t RegisterWindow::stores_seen(uint32_t word) const {
    if (word < kFirstTrappedWord || word >= kEndOfTrappedWords) {
        return 0;
    }
    return stores_[word - kFirstTrappedWord].load(std::memory_order_relaxed);
}

uint32_t RegisterWindow::trapped_word(uintptr_t address) const {
    const uintptr_t page =
        reinterpret_cast<uintptr_t>(program_) + kFirstTrappedWord * sizeof(uint32_t);
    if (address < page || address >= page + kPageBytes) {
        return 0;
    }
    return kFirstTrappedWord + static_cast<uint32_t>((address - page) / sizeof(uint32_t));
}

void RegisterWindow::carry_out(uint32_t word, uint32_t value) {
    __atomic_store_n(&model_[word], value, __ATOMIC_RELEASE);
    if (word < kEndOfTrappedWords) {
        act(word, value);
    }
}

void RegisterWindow::begin_step() {
    steps_open_.fetch_add(1, std::memory_order_acq_rel);
    reopen_for_step();
}

// Also after another thread's step closed the page between our opening it and the instruction.
void RegisterWindow::reopen_for_step() {
    mprotect(const_cast<uint32_t*>(program_) + kFirstTrappedWord, kPageBytes,
             PROT_READ | PROT_WRITE);
}

void RegisterWindow::finish_step(uint32_t faulted_word) {
    abandon_step();
    for (uint32_t word = kFirstTrappedWord; word < kEndOfTrappedWords; ++word) {
        const uint32_t value = read(word);
        const bool changed =
            acted_on_[word - kFirstTrappedWord].load(std::memory_order_relaxed) != value;
        if (changed || word == faulted_word) {
            act(word, value);
        }
    }
}

void RegisterWindow::abandon_step() {
    if (steps_open_.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        close_page();
    }
}

void RegisterWindow::close_page() {
    mprotect(const_cast<uint32_t*>(program_) + kFirstTrappedWord, kPageBytes, PROT_READ);
}

void RegisterWindow::act(uint32_t word, uint32_t value) {
    acted_on_[word - kFirstTrappedWord].store(value, std::memory_order_relaxed);
    stores_[word - kFirstTrappedWord].fetch_add(1, std::memory_order_relaxed);
    switch (word) {
    case kShfeDataWord:
        set_entry(Exchange::kShfe, read(kShfeAddressWord), value);
        break;
    case kIneDataWord:
        set_entry(Exchange::kIne, read(kIneAddressWord), value);
        break;
    case kShfeReadAddressWord:
        show(kShfeReadDataWord, filter_entry(Exchange::kShfe, value));
        break;
    case kIneReadAddressWord:
        show(kIneReadDataWord, filter_entry(Exchange::kIne, value));
        break;
    default:
        break;
    }
}

// A register that the firmware itself sets.
void RegisterWindow::show(uint32_t word, uint32_t value) {
    acted_on_[word - kFirstTrappedWord].store(value, std::memory_order_relaxed);
    __atomic_store_n(&model_[word], value, __ATOMIC_RELEASE);
}

void RegisterWindow::set_entry(Exchange exchange, uint32_t instrument_no, uint32_t value) {
    const auto entry = static_cast<uint8_t>(value == 1);
    if (exchange == Exchange::kShfe && instrument_no < kShfeEntries) {
        shfe_[instrument_no].store(entry, std::memory_order_release);
    } else if (exchange == Exchange::kIne && instrument_no < kIneEntries) {
        ine_[instrument_no].store(entry, std::memory_order_release);
    }
    generation_.fetch_add(1, std::memory_order_acq_rel);
}

} // namespace softcard
