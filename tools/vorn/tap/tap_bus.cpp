#include "tools/vorn/tap/tap_bus.h"

#include "bus/bus_process.h"
#include "tools/vorn/exit_code.h"

#include <chrono>
#include <fmt/format.h>

namespace vorn_cli {

namespace {

vorn_bus::WriterOptions writer_options(const std::string& name, uint64_t beat_ns) {
    if (!vorn_bus::is_bus_name(name)) {
        throw Failure(kUsage, fmt::format("'{}' is not a name for a bus (at most 64 letters, "
                                          "digits, '_', '-' and '.', as in --bus live)",
                                          name));
    }
    vorn_bus::WriterOptions options;
    options.name = name;
    options.heartbeat_interval_ns = beat_ns;
    return options;
}

} // namespace

TapBus::TapBus(const std::string& name) : writer_(writer_options(name, kBeatNs)) {
    counters_.size = sizeof(counters_);
    counters_.version = VORN_MD_COUNTERS_VERSION;
    counters_.phase = phase_;
    counters_.phase_since_ns = vorn_bus::clock_ns(CLOCK_MONOTONIC);
    counters_.cycles = 1;
    thread_ = std::thread([this] { beat(); });
}

TapBus::~TapBus() {
    {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    over_.notify_one();
    thread_.join();
}

void TapBus::beat() {
    std::unique_lock lock(mutex_);
    while (!stopping_) {
        writer_.beat(counters_);
        over_.wait_for(lock, std::chrono::nanoseconds(kBeatNs), [this] { return stopping_; });
    }
    writer_.beat(counters_);
}

void TapBus::put_event(vorn_md_event_t event) {
    event.size = sizeof(event);
    event.time_ns = vorn_bus::clock_ns(CLOCK_MONOTONIC);
    event.phase = phase_;
    writer_.publish_event(event);
}

void TapBus::put(const Outgoing& message) {
    if (message.is_event) {
        // The phases are those of a publisher's feed, one of several; this bus has its own.
        if (message.event.type >= VORN_MD_EVENT_GAP &&
            message.event.type <= VORN_MD_EVENT_OVERFLOW) {
            put_event(message.event);
        }
        return;
    }
    const bool live = phase_ == VORN_MD_PHASE_LIVE && message.flags == 0;
    writer_.publish(message.record, message.slot, live ? 0 : vorn_bus::kFlagReplay);
    last_update_ns_ = vorn_bus::clock_ns(CLOCK_MONOTONIC);
}

void TapBus::set_live(bool live) {
    const uint32_t phase = live ? VORN_MD_PHASE_LIVE : VORN_MD_PHASE_SNAPSHOT;
    if (phase == phase_) {
        return;
    }
    vorn_md_event_t event{};
    event.type = VORN_MD_EVENT_PHASE;
    event.previous_phase = phase_;
    phase_ = phase;
    {
        const std::lock_guard lock(mutex_);
        counters_.phase = phase;
        counters_.phase_since_ns = vorn_bus::clock_ns(CLOCK_MONOTONIC);
    }
    put_event(event);
}

void TapBus::set_counts(const TapOrder& order) {
    const std::lock_guard lock(mutex_);
    counters_.updates = order.updates() + order.values();
    counters_.stale = order.repeated();
    counters_.frames = counters_.updates + counters_.stale;
    counters_.last_update_ns = last_update_ns_;
}

} // namespace vorn_cli
