#pragma once

// A stand-in for the card: the seven libexanic calls, answered from a script. It knows nothing of
// the firmware; a test says what every poll returns and reads back every register store in order.

#include "wirekit/bytes.h"

#include <cstdint>
#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

struct exanic_rx; // the library's receive buffer

namespace support {

struct RegisterStore {
    uint32_t word;
    uint32_t value;
    bool operator==(const RegisterStore&) const = default;
};

// One per process, because the calls it answers are global functions. reset() before every test.
// push* and on_poll are called before the feed runs or from within on_poll (on the polling thread).
class ScriptedCard {
public:
    static ScriptedCard& instance();

    void reset();

    // --- What the polls of a port answer, in order; once the script is used up, 0.
    // A frame larger than the caller's buffer is answered with -257, as the library does.
    void push(int port, wirekit::Bytes frame);
    void push_nothing(int port, int polls = 1); // answers 0
    void push_result(int port, ssize_t result); // any status without data, e.g. -256 or 5000
    // Called at every poll before it is answered, with the port and the number of this poll of that
    // port, from 1. Runs on the polling thread, outside the card's lock; the two ports are polled
    // by two threads, which may be inside the hook at the same time.
    void on_poll(std::function<void(int port, uint64_t poll)> hook);
    uint64_t polls(int port) const;
    std::size_t left(int port) const; // script entries not yet answered

    // --- What fails. Empty text: nothing fails.
    enum class Call { kAcquireHandle, kRegisters, kRxBuffer };
    // `port` matters for kRxBuffer only. exanic_get_last_error() answers `text` afterwards.
    void fail(Call call, const std::string& text, int port = -1);

    // --- The register window: 32768 words. With recording on (the default after reset) every store
    // is seen, by trapping; with it off the window is plain memory.
    void record_stores(bool on);
    std::vector<RegisterStore> stores() const; // the first 200000
    std::size_t dropped_stores() const;        // stores beyond those
    // Stores that were not plain aligned 32-bit moves, e.g. a read-modify-write.
    std::size_t unusual_stores() const;
    void clear_stores();
    uint32_t reg(uint32_t word) const;
    void set_reg(uint32_t word, uint32_t value);
    volatile uint32_t* registers();

    // --- Acquire and release calls in order, e.g. "acquire_handle exanic0", "acquire_rx 1 0",
    // "acquire_rx 0 0", "release_rx 0", "release_rx 1", "release_handle".
    std::vector<std::string> calls() const;
    // Names of the devices asked for are kept even when the call failed.

    // An rx buffer of a port for tests that construct a channel by themselves.
    ::exanic_rx* rx(int port);

private:
    ScriptedCard();
};

} // namespace support
