#pragma once

// A register window that sees every store. The view handed to the feed is read-only; a store traps,
// is decoded, carried out on a writable view of the same memory, recorded and stepped over. Nothing
// is ever unprotected on this road, so no store of another thread slips past. A store that the
// decoder does not know (anything but a plain 32-bit mov) is carried out by the processor itself:
// the page is opened for one single step.

#include <cstddef>
#include <cstdint>

namespace support {

class RegisterWindow {
public:
    static constexpr std::size_t kWords = 32768;
    static constexpr std::size_t kMaxRecords = 200000;

    struct Record {
        uint32_t word;
        uint32_t value;
    };

    // One per process: signal handlers are process-wide.
    static RegisterWindow& instance();

    void record(bool on);
    void clear_records();
    void zero();

    std::size_t size() const;            // stores recorded
    const Record* records() const;       // size() of them, oldest first
    std::size_t dropped() const;         // stores beyond kMaxRecords
    std::size_t unusual() const;         // stores that were not plain aligned 32-bit moves
    volatile uint32_t* guarded() const;  // what the feed gets
    volatile uint32_t* writable() const; // the same memory, never trapping

private:
    RegisterWindow();
};

} // namespace support
