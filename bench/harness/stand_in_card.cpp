#include "bench/harness/stand_in_card.h"

#include <exanic/exanic.h>
#include <exanic/fifo_rx.h>
#include <exanic/util.h>

#include <cstring>

namespace bench {

namespace {

struct Served {
    const char* at = nullptr;
    std::size_t next = 0;
    std::size_t last = 0;
    std::vector<std::size_t> lengths;
} g_served;

volatile uint32_t g_registers[32768];

} // namespace

void FrameList::add(const void* bytes, std::size_t size) {
    const auto* from = static_cast<const char*>(bytes);
    bytes_.insert(bytes_.end(), from, from + size);
    ends_.push_back(bytes_.size());
}

void serve(const FrameList& frames, std::size_t first, std::size_t last) {
    g_served.lengths.clear();
    for (std::size_t i = first; i < last; ++i) {
        g_served.lengths.push_back(frames.length(i));
    }
    g_served.at = first < last ? frames.bytes(first) : nullptr;
    g_served.next = 0;
    g_served.last = last - first;
}

void serve(const FrameList& frames) {
    serve(frames, 0, frames.size());
}

void warm_next() {
    if (g_served.next < g_served.last) {
        const volatile char* const frame = g_served.at;
        const std::size_t length = g_served.lengths[g_served.next];
        for (std::size_t at = 0; at < length; at += 64) {
            (void)frame[at];
        }
        (void)frame[length - 1];
    }
}

volatile uint32_t* registers() {
    return g_registers;
}

} // namespace bench

// Two readers would share one position; the benches have one at a time.
struct exanic {};
struct exanic_rx {};

extern "C" {

exanic_t* exanic_acquire_handle(const char*) {
    static exanic_t handle;
    return &handle;
}
void exanic_release_handle(exanic_t*) {}
const char* exanic_get_last_error(void) {
    return "";
}
exanic_rx_t* exanic_acquire_rx_buffer(exanic_t*, int, int) {
    static exanic_rx_t rx;
    return &rx;
}
void exanic_release_rx_buffer(exanic_rx_t*) {}
volatile uint32_t* exanic_get_devkit_registers(exanic_t*) {
    return bench::g_registers;
}

ssize_t exanic_receive_frame(exanic_rx_t*, char* buffer, size_t, exanic_cycles32_t*) {
    auto& served = bench::g_served;
    if (served.next == served.last) {
        return 0;
    }
    const std::size_t length = served.lengths[served.next++];
    std::memcpy(buffer, served.at, length);
    served.at += length;
    return static_cast<ssize_t>(length);
}

} // extern "C"
