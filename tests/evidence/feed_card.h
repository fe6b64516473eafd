#pragma once

// A stand-in for the card that scripts whole cycles of the feed without allocating, locking or
// waiting while the feed runs, so that a test can fail any allocation and delay any call.
//
// The script is driven from the polls of the decode port, that is on the caller's thread: first the
// buffers that are cached, then the snapshot's frames on the raw port, then the live buffers. Once
// the last cycle has been handled the run flag drops.

#include "ExanicMdTypes.h"
#include "wirekit/bytes.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <vector>

namespace evidence {

// One bring-up and what the card delivers after it.
struct Cycle {
    std::vector<wirekit::Bytes> cached;   // decode buffers before the first raw frame
    std::vector<wirekit::Bytes> snapshot; // raw frames
    std::vector<wirekit::Bytes> after;    // decode buffers, one a poll
};

enum class Call : uint8_t {
    kAcquire,    // of the handle: a cycle begins
    kPollDecode, // caller's thread
    kPollRaw,    // decoder's thread
    kRelease,    // of the handle: the run ends, the table is still there
};

// One per process. The members are set before the feed runs.
class FeedCard {
public:
    static FeedCard& instance();

    // The script of the next run; it outlives the run. `repeats` plays the cycles that many times.
    void start(const std::vector<Cycle>& cycles, int* keep_running, std::size_t repeats = 1);

    // Called at each call of the card before it is answered, on the thread that makes it.
    std::function<void(Call)> at_call;
    // Decoder's thread: called at a poll that finds no raw frame left in the script, with the
    // number of such polls since the last frame.
    std::function<void(uint64_t polls)> at_raw_end;

    // Caller's thread.
    bool loading() const { return loading_; }
    std::size_t cycle() const { return cycle_; } // from 1
    uint64_t polls() const { return polls_; }    // of the decode port in this phase, from 1

    // What the seven calls do.
    volatile uint32_t* registers() { return registers_; }
    const wirekit::Bytes* poll_decode();
    const wirekit::Bytes* poll_raw();
    void call(Call what) {
        if (at_call) {
            at_call(what);
        }
    }

private:
    static constexpr std::size_t kWords = 32768;

    const Cycle& current() const { return (*cycles_)[(cycle_ - 1) % cycles_->size()]; }
    const wirekit::Bytes* load();
    const wirekit::Bytes* replay();

    volatile uint32_t registers_[kWords] = {};
    const std::vector<Cycle>* cycles_ = nullptr;
    int* keep_running_ = nullptr;
    std::size_t count_ = 0; // cycles to play
    bool loading_ = false;
    std::size_t cycle_ = 0;
    uint64_t polls_ = 0;
    std::size_t decode_at_ = 0;
    // Caller to decoder: the frames of this cycle may come. Null: none yet.
    std::atomic<const std::vector<wirekit::Bytes>*> raw_{nullptr};
    std::size_t raw_at_ = 0; // decoder's thread; the caller's between two of them
    uint64_t raw_idle_ = 0;
};

} // namespace evidence
