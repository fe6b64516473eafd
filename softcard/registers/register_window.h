#pragma once

// The devkit register window of one card: plain memory for the program, with every store to the
// filter tables' registers seen in order by the model.
//
// The memory is mapped twice. The program's view has page 1 read-only, so that a store there faults
// and the fault handler (store_trap.h) carries it out on the other view; the model's view is
// writable throughout. Nothing is unprotected on the way, so no thread can slip past. The model
// reads registers through its own view only.

#include "softcard/registers/register_map.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace softcard {

// The switches as the model judges frames by them, sampled together.
struct Switches {
    bool raw = false;
    bool decode = false;
    bool all_ine = false;
    bool all_shfe = false;
    bool reset = false; // held in reset: nothing is delivered

    uint64_t bits() const {
        return static_cast<uint64_t>(raw) | static_cast<uint64_t>(decode) << 1 |
               static_cast<uint64_t>(all_ine) << 2 | static_cast<uint64_t>(all_shfe) << 3 |
               static_cast<uint64_t>(reset) << 4;
    }
};

class RegisterWindow {
public:
    // Null with a one-line reason in `error` when the memory or the fault handler cannot be had.
    static std::unique_ptr<RegisterWindow> create(std::string& error);
    ~RegisterWindow();
    RegisterWindow(const RegisterWindow&) = delete;
    RegisterWindow& operator=(const RegisterWindow&) = delete;

    volatile uint32_t* program_view() const { return program_; }

    uint32_t read(uint32_t word) const { return __atomic_load_n(&model_[word], __ATOMIC_ACQUIRE); }
    Switches switches() const {
        return {.raw = read(kRawSwitchWord) == 1,
                .decode = read(kDecodeSwitchWord) == 1,
                .all_ine = read(kAllIneSwitchWord) == 1,
                .all_shfe = read(kAllShfeSwitchWord) == 1,
                .reset = read(kResetWord) == 1};
    }

    // Whether the instrument's entry is 1. Numbers outside the table have no entry.
    bool filter_entry(Exchange exchange, uint32_t instrument_no) const;
    // Changes with every store to a filter table.
    uint32_t filter_generation() const { return generation_.load(std::memory_order_acquire); }

    // Stores seen so far to a word of page 1.
    uint64_t stores_seen(uint32_t word) const;

    // What follows is called from signal handlers: no lock, no allocation.

    // The word of page 1 that lies at `address` in the program's view; 0 for any other address.
    uint32_t trapped_word(uintptr_t address) const;
    // Stores `value` on the model's view and does what the firmware does on such a store.
    void carry_out(uint32_t word, uint32_t value);
    // Opens page 1 of the program's view for one instruction, and closes it once nobody else has
    // it open. `finish_step` acts on what the instruction stored: the word it faulted on, and every
    // other word of the page that changed.
    void begin_step();
    void reopen_for_step();
    void finish_step(uint32_t faulted_word);
    void abandon_step();

private:
    RegisterWindow() = default;
    void act(uint32_t word, uint32_t value);
    void show(uint32_t word, uint32_t value);
    void set_entry(Exchange exchange, uint32_t instrument_no, uint32_t value);
    void close_page();

    volatile uint32_t* program_ = nullptr;
    uint32_t* model_ = nullptr;
    std::array<std::atomic<uint8_t>, kShfeEntries> shfe_{};
    std::array<std::atomic<uint8_t>, kIneEntries> ine_{};
    std::atomic<uint32_t> generation_{0};
    std::array<std::atomic<uint64_t>, kPageWords> stores_{};
    std::array<std::atomic<uint32_t>, kPageWords> acted_on_{}; // value last acted on, per word
    std::atomic<int> steps_open_{0};
    bool trapping_ = false;
};

} // namespace softcard
