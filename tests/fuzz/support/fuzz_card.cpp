#include "fuzz_card.h"

#include <cstring>
#include <exanic/exanic.h>
#include <exanic/fifo_rx.h>
#include <exanic/util.h>
#include <sanitizer/asan_interface.h>
#include <utility>

namespace fuzz {
namespace {

constexpr ssize_t kFrameTooLarge = -257;

char buffer_of_the_card; // its address is the receive buffer
std::span<const uint8_t> next_frame;
ssize_t next_status = 0;

} // namespace

::exanic_rx* FuzzCard::rx() {
    return reinterpret_cast<::exanic_rx*>(&buffer_of_the_card);
}

void FuzzCard::put(std::span<const uint8_t> frame) {
    next_frame = frame;
}

void FuzzCard::put_status(ssize_t status) {
    next_status = status;
}

bool FuzzCard::is_empty() {
    return next_frame.empty() && next_status == 0;
}

} // namespace fuzz

extern "C" {

exanic_t* exanic_acquire_handle(const char*) {
    return nullptr;
}

void exanic_release_handle(exanic_t*) {}

const char* exanic_get_last_error(void) {
    return "there is no card";
}

volatile uint32_t* exanic_get_devkit_registers(exanic_t*) {
    return nullptr;
}

exanic_rx_t* exanic_acquire_rx_buffer(exanic_t*, int, int) {
    return nullptr;
}

void exanic_release_rx_buffer(exanic_rx_t*) {}

ssize_t exanic_receive_frame(exanic_rx_t*, char* rx_buf, size_t rx_buf_size,
                             exanic_cycles32_t* timestamp) {
    if (timestamp != nullptr) {
        *timestamp = 0;
    }
    const auto frame = std::exchange(fuzz::next_frame, {});
    ASAN_UNPOISON_MEMORY_REGION(rx_buf, rx_buf_size);
    if (frame.empty()) {
        return std::exchange(fuzz::next_status, 0);
    }
    if (frame.size() > rx_buf_size) {
        return fuzz::kFrameTooLarge;
    }
    std::memcpy(rx_buf, frame.data(), frame.size());
    // A sanitizer sees a read behind the frame, where an older one may still lie.
    ASAN_POISON_MEMORY_REGION(rx_buf + frame.size(), rx_buf_size - frame.size());
    return static_cast<ssize_t>(frame.size());
}
}
