#include "softcard/sources/device_text.h"

#include "softcard/firmware/live_card.h"
#include "softcard/firmware/paced_card.h"
#include "softcard/firmware/step_card.h"
#include "softcard/firmware/worker_watch.h"
#include "softcard/sources/faulty_source.h"
#include "softcard/sources/pcap_source.h"
#include "softcard/sources/sim_source.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <vector>

namespace softcard {

namespace {

constexpr std::string_view kSchemes =
    "use sim:key=value&..., pcap:PATH?key=value&... or if:INTERFACE?key=value&...";

constexpr uint64_t kLeastBuffer = 1u << 20;
constexpr uint64_t kMostBuffer = 1u << 30;

std::string quoted(std::string_view text) {
    return "\"" + std::string(text) + "\"";
}

bool parse_speed(std::string_view value, double& speed) {
    const char* const end = value.data() + value.size();
    const auto [stop, status] = std::from_chars(value.data(), end, speed);
    return status == std::errc() && stop == end && std::isfinite(speed) && speed > 0;
}

bool parse_seed(std::string_view value, uint64_t& seed) {
    const char* const end = value.data() + value.size();
    const auto [stop, status] = std::from_chars(value.data(), end, seed);
    return status == std::errc() && stop == end;
}

// Takes one "key=value"; what belongs to the card goes there, the rest to the source.
bool take_option(std::string_view option, DeviceText& device, std::string& error) {
    const std::size_t equals = option.find('=');
    if (equals == std::string_view::npos || equals == 0) {
        error = quoted(option) + " is not key=value";
        return false;
    }
    const std::string_view key = option.substr(0, equals);
    const std::string_view value = option.substr(equals + 1);
    if (key == "eof") {
        if (value != "stop" && value != "idle") {
            error = "eof=" + std::string(value) + ": must be stop or idle";
            return false;
        }
        device.at_end = value == "stop" ? AtEnd::kStop : AtEnd::kIdle;
        return true;
    }
    if (key == "speed") {
        if (!parse_speed(value, device.speed)) {
            error = "speed=" + std::string(value) +
                    ": must be a number greater than 0, or left out for step mode";
            return false;
        }
        return true;
    }
    if (key == "fault") {
        return faults::parse_faults(value, device.faults, error);
    }
    if (key == "fault_seed") {
        if (!parse_seed(value, device.fault_seed)) {
            error = "fault_seed=" + std::string(value) + ": must be a whole number from 0";
            return false;
        }
        return true;
    }
    device.source_options.emplace(key, value);
    return true;
}

bool take_options(std::string_view options, DeviceText& device, std::string& error) {
    std::vector<std::string_view> keys;
    while (!options.empty()) {
        const std::string_view option = options.substr(0, options.find('&'));
        options.remove_prefix(std::min(option.size() + 1, options.size()));
        const std::string_view key = option.substr(0, option.find('='));
        if (std::find(keys.begin(), keys.end(), key) != keys.end()) {
            error = "option " + quoted(key) + " is given twice";
            return false;
        }
        keys.push_back(key);
        if (!take_option(option, device, error)) {
            return false;
        }
    }
    return true;
}

// A whole number of bytes, or of KiB, MiB or GiB with K, M or G behind it; 0 for none of these.
uint64_t parse_size(std::string_view value) {
    uint64_t number = 0;
    const char* const end = value.data() + value.size();
    const auto [stop, status] = std::from_chars(value.data(), end, number);
    const std::string_view unit(stop, static_cast<std::size_t>(end - stop));
    const unsigned shift = unit == "K" ? 10 : unit == "M" ? 20 : unit == "G" ? 30 : 0;
    if (status != std::errc() || (shift == 0 && !unit.empty()) || number > UINT64_MAX >> shift) {
        return 0;
    }
    return number << shift;
}

// The options of if:, taken out of those that the card does not know.
bool parse_interface_options(DeviceText& device, std::string& error) {
    device.live.interface = device.path;
    if (device.speed != 0) {
        error = "if: plays in real time and takes no speed=";
        return false;
    }
    if (!device.faults.empty()) {
        error = "if: shows what the network brings and takes no fault=; record it and put the "
                "faults into the recording, as in pcap:PATH?fault=gap";
        return false;
    }
    for (const auto& [key, value] : device.source_options) {
        if (key == "buffer") {
            device.live.buffer_bytes = parse_size(value);
            if (device.live.buffer_bytes < kLeastBuffer || device.live.buffer_bytes > kMostBuffer) {
                error = "buffer=" + value + ": must be a size from 1M to 1G, as in buffer=64M";
                return false;
            }
        } else if (key == "idle") {
            if (!parse_speed(value, device.live.idle_seconds)) {
                error = "idle=" + value + ": must be a number of seconds greater than 0";
                return false;
            }
        } else {
            error = "unknown option " + quoted(key) +
                    "; if: knows buffer=SIZE and idle=SECONDS with eof=stop";
            return false;
        }
    }
    if ((device.at_end == AtEnd::kStop) != (device.live.idle_seconds > 0)) {
        error = "an interface has no end: eof=stop and idle=SECONDS go together, to stop once "
                "nothing has come for so long";
        return false;
    }
    return true;
}

std::unique_ptr<Card> open_live_card(const DeviceText& device, std::string& error) {
    auto source = open_interface_source(device.live, error);
    if (source == nullptr) {
        return nullptr;
    }
    auto registers = RegisterWindow::create(error);
    if (registers == nullptr) {
        return nullptr;
    }
    return std::make_unique<LiveCard>(std::move(registers), std::move(source), device.at_end);
}

std::unique_ptr<FrameSource> open_source(const DeviceText& device, std::string& error) {
    return device.scheme == "sim" ? open_sim_source(device.source_options, error)
                                  : open_pcap_source(device.path, error);
}

} // namespace

bool parse_device_text(std::string_view text, DeviceText& device, std::string& error) {
    const std::size_t colon = text.find(':');
    if (colon == std::string_view::npos) {
        error = "no source in device " + quoted(text) + "; " + std::string(kSchemes);
        return false;
    }
    device.scheme = text.substr(0, colon);
    std::string_view rest = text.substr(colon + 1);
    if (device.scheme == "pcap" || device.scheme == "if") {
        // The last question mark, so that a path may hold one when options follow.
        const std::size_t mark = std::min(rest.rfind('?'), rest.size());
        device.path = rest.substr(0, mark);
        rest.remove_prefix(std::min(mark + 1, rest.size()));
        if (device.path.empty()) {
            error = device.scheme == "if"
                        ? "if: needs the name of a network interface, as in if:eth1"
                        : "pcap: needs the path of a capture file, as in pcap:PATH?eof=stop";
            return false;
        }
    } else if (device.scheme != "sim") {
        error = "unknown source " + quoted(device.scheme) + " in device " + quoted(text) + "; " +
                std::string(kSchemes);
        return false;
    }
    if (!take_options(rest, device, error)) {
        return false;
    }
    if (device.scheme == "pcap" && !device.source_options.empty()) {
        error = "unknown option " + quoted(device.source_options.begin()->first) +
                "; pcap: knows eof=stop|idle, speed=F, fault=KIND[@TIME][:COUNT] and fault_seed=N";
        return false;
    }
    return device.scheme != "if" || parse_interface_options(device, error);
}

std::unique_ptr<Card> open_card(std::string_view text, std::string& error) {
    DeviceText device;
    if (!parse_device_text(text, device, error)) {
        return nullptr;
    }
    if (device.scheme == "if") {
        return open_live_card(device, error);
    }
    if (device.speed == 0 && !WorkerWatch::available()) {
        error = "step mode needs /proc to see the feed's threads; mount it or give a speed=F";
        return nullptr;
    }
    auto source = open_source(device, error);
    if (source == nullptr) {
        return nullptr;
    }
    source = with_faults(std::move(source), device.faults, device.fault_seed);
    auto registers = RegisterWindow::create(error);
    if (registers == nullptr) {
        return nullptr;
    }
    if (device.speed > 0) {
        return std::make_unique<PacedCard>(std::move(registers), std::move(source), device.at_end,
                                           device.speed);
    }
    return std::make_unique<StepCard>(std::move(registers), std::move(source), device.at_end);
}

} // namespace softcard
