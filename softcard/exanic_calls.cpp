// The seven calls. A device is opened by the first acquire of its name and closed when the last
// reference goes; handles and receive buffers each hold one.

#include "softcard/inspect.h"
#include "softcard/sources/device_text.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <exanic/fifo_rx.h>
#include <exanic/util.h>
#include <exception>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

struct exanic_rx {
    exanic_t* exanic;
    softcard::Card* card;
    softcard::Reader reader;
};

struct exanic {
    std::string name;
    std::unique_ptr<softcard::Card> card;
    std::size_t references = 0;
    // Owned here, so that buffers that nobody releases end with their device.
    std::vector<std::unique_ptr<exanic_rx>> buffers;
};

namespace {

thread_local std::array<char, 1024> last_error{};

void set_error(const std::string& text) {
    std::snprintf(last_error.data(), last_error.size(), "%s", text.c_str());
}

struct Registry {
    std::mutex mutex;
    std::vector<std::unique_ptr<exanic>> devices;
};

Registry& registry() {
    // Never destroyed: a thread may still be polling while the process ends.
    static auto* const instance = new Registry;
    return *instance;
}

// Under the registry's lock.
void release(exanic* device) {
    if (--device->references == 0) {
        std::erase_if(registry().devices,
                      [device](const auto& other) { return other.get() == device; });
    }
}

exanic* acquire(const char* name) {
    if (name == nullptr || *name == '\0') {
        set_error("no device name; use sim:key=value&..., pcap:PATH?key=value&... or "
                  "if:INTERFACE?key=value&...");
        return nullptr;
    }
    const std::lock_guard lock(registry().mutex);
    auto& devices = registry().devices;
    const auto open = std::find_if(devices.begin(), devices.end(),
                                   [name](const auto& device) { return device->name == name; });
    if (open != devices.end()) {
        ++(*open)->references;
        return open->get();
    }
    std::string error;
    auto device = std::make_unique<exanic>();
    device->card = softcard::open_card(name, error);
    if (device->card == nullptr) {
        set_error(error);
        return nullptr;
    }
    device->name = name;
    device->references = 1;
    devices.push_back(std::move(device));
    return devices.back().get();
}

exanic_rx* acquire_buffer(exanic* device, int port, int buffer) {
    if (device == nullptr) {
        set_error("no handle to take a receive buffer of");
        return nullptr;
    }
    if (port < 0 || port > 1) {
        set_error("no port " + std::to_string(port) + "; the card has ports 0 and 1");
        return nullptr;
    }
    if (buffer != 0) {
        set_error("no receive buffer " + std::to_string(buffer) + "; each port has buffer 0 only");
        return nullptr;
    }
    const std::lock_guard lock(registry().mutex);
    device->buffers.push_back(std::make_unique<exanic_rx>(
        exanic_rx{device, device->card.get(), device->card->new_reader(port)}));
    ++device->references;
    return device->buffers.back().get();
}

} // namespace

extern "C" {

exanic_t* exanic_acquire_handle(const char* device_name) {
    try {
        return acquire(device_name);
    } catch (const std::exception& failure) {
        set_error(failure.what());
        return nullptr;
    }
}

void exanic_release_handle(exanic_t* exanic) {
    if (exanic != nullptr) {
        const std::lock_guard lock(registry().mutex);
        release(exanic);
    }
}

const char* exanic_get_last_error(void) {
    return last_error.data();
}

exanic_rx_t* exanic_acquire_rx_buffer(exanic_t* exanic, int port_number, int buffer_number) {
    try {
        return acquire_buffer(exanic, port_number, buffer_number);
    } catch (const std::exception& failure) {
        set_error(failure.what());
        return nullptr;
    }
}

void exanic_release_rx_buffer(exanic_rx_t* rx) {
    if (rx == nullptr) {
        return;
    }
    const std::lock_guard lock(registry().mutex);
    exanic_t* const device = rx->exanic;
    std::erase_if(device->buffers, [rx](const auto& buffer) { return buffer.get() == rx; });
    release(device);
}

ssize_t exanic_receive_frame(exanic_rx_t* rx, char* rx_buf, size_t rx_buf_size,
                             exanic_cycles32_t* timestamp) {
    return rx->card->receive(rx->reader, rx_buf, rx_buf_size, timestamp);
}

volatile uint32_t* exanic_get_devkit_registers(exanic_t* exanic) {
    if (exanic == nullptr) {
        set_error("no handle to take the registers of");
        return nullptr;
    }
    return exanic->card->registers().program_view();
}

} // extern "C"

namespace softcard {

uint64_t stores_seen(const exanic_t* exanic, uint32_t word) {
    return exanic->card->registers().stores_seen(word);
}

bool filter_entry(const exanic_t* exanic, Exchange exchange, uint32_t instrument_no) {
    return exanic->card->registers().filter_entry(exchange, instrument_no);
}

uint64_t frame_time_ns(const exanic_rx_t* rx) {
    return rx->reader.timestamp_ns;
}

std::size_t open_devices() {
    const std::lock_guard lock(registry().mutex);
    return registry().devices.size();
}

void close_all_devices() {
    const std::lock_guard lock(registry().mutex);
    registry().devices.clear();
}

} // namespace softcard
