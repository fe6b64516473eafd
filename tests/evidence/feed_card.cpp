#include "feed_card.h"

#include <cstring>
#include <exanic/exanic.h>
#include <exanic/fifo_rx.h>
#include <exanic/util.h>

namespace evidence {
namespace {

constexpr uint32_t kRawPathSwitch = 512; // on exactly while a snapshot is loaded

} // namespace

FeedCard& FeedCard::instance() {
    static FeedCard card;
    return card;
}

void FeedCard::start(const std::vector<Cycle>& cycles, int* keep_running, std::size_t repeats) {
    for (volatile uint32_t& word : registers_) {
        word = 0;
    }
    cycles_ = &cycles;
    keep_running_ = keep_running;
    count_ = cycles.size() * repeats;
    loading_ = false;
    cycle_ = 0;
    polls_ = 0;
    decode_at_ = 0;
    raw_ = nullptr;
    raw_at_ = 0;
    raw_idle_ = 0;
}

const wirekit::Bytes* FeedCard::poll_decode() {
    const bool loading = registers_[kRawPathSwitch] == 1;
    if (loading != loading_) {
        loading_ = loading;
        polls_ = 0;
        decode_at_ = 0;
        if (loading) {
            ++cycle_;
        } else {
            raw_ = nullptr; // the decoder's thread has ended
            raw_at_ = 0;
            raw_idle_ = 0;
        }
    }
    ++polls_;
    if (cycle_ > count_) { // a gap in the last cycle
        __atomic_store_n(keep_running_, 0, __ATOMIC_RELAXED);
        return nullptr;
    }
    return loading ? load() : replay();
}

const wirekit::Bytes* FeedCard::load() {
    const Cycle& cycle = current();
    if (decode_at_ < cycle.cached.size()) {
        return &cycle.cached[decode_at_++];
    }
    raw_.store(&cycle.snapshot, std::memory_order_release);
    return nullptr;
}

const wirekit::Bytes* FeedCard::replay() {
    const Cycle& cycle = current();
    if (decode_at_ < cycle.after.size()) {
        return &cycle.after[decode_at_++];
    }
    // A pass of the replay handles one cached entry and a pass of the live loop one buffer, so by
    // this poll everything has been handled.
    if (polls_ > cycle.cached.size() + cycle.after.size()) {
        __atomic_store_n(keep_running_, 0, __ATOMIC_RELAXED);
    }
    return nullptr;
}

const wirekit::Bytes* FeedCard::poll_raw() {
    const auto* frames = raw_.load(std::memory_order_acquire);
    if (frames == nullptr) {
        return nullptr;
    }
    if (raw_at_ < frames->size()) {
        raw_idle_ = 0;
        return &(*frames)[raw_at_++];
    }
    if (at_raw_end) {
        at_raw_end(++raw_idle_);
    }
    return nullptr;
}

} // namespace evidence

struct exanic {};
struct exanic_rx {
    int port;
};

namespace {

using evidence::Call;
using evidence::FeedCard;

exanic handle;
exanic_rx ports[2] = {{0}, {1}};

} // namespace

extern "C" {

exanic_t* exanic_acquire_handle(const char*) {
    FeedCard::instance().call(Call::kAcquire);
    return &handle;
}

void exanic_release_handle(exanic_t*) {
    FeedCard::instance().call(Call::kRelease);
}

const char* exanic_get_last_error(void) {
    return "";
}

volatile uint32_t* exanic_get_devkit_registers(exanic_t*) {
    return FeedCard::instance().registers();
}

exanic_rx_t* exanic_acquire_rx_buffer(exanic_t*, int port_number, int) {
    return &ports[port_number];
}

void exanic_release_rx_buffer(exanic_rx_t*) {}

ssize_t exanic_receive_frame(exanic_rx_t* rx, char* rx_buf, size_t rx_buf_size,
                             exanic_cycles32_t*) {
    FeedCard& card = FeedCard::instance();
    card.call(rx->port == 0 ? Call::kPollDecode : Call::kPollRaw);
    const wirekit::Bytes* frame = rx->port == 0 ? card.poll_decode() : card.poll_raw();
    if (frame == nullptr || frame->size() > rx_buf_size) {
        return 0;
    }
    std::memcpy(rx_buf, frame->data(), frame->size());
    return static_cast<ssize_t>(frame->size());
}

} // extern "C"
