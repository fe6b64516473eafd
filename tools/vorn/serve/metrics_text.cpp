#include "tools/vorn/serve/metrics_text.h"

#include <prometheus/metric_family.h>
#include <prometheus/text_serializer.h>

#include <utility>
#include <vector>

namespace vorn_cli {

namespace {

using prometheus::ClientMetric;
using prometheus::MetricFamily;
using prometheus::MetricType;

double seconds(uint64_t ns) {
    return static_cast<double>(ns) / 1e9;
}

class Families {
public:
    // Opens a family; what follows with value() goes into it.
    Families& family(MetricType type, const char* name, const char* help) {
        families_.push_back({name, help, type, {}});
        return *this;
    }
    Families& counter(const char* name, const char* help) {
        return family(MetricType::Counter, name, help);
    }
    Families& gauge(const char* name, const char* help) {
        return family(MetricType::Gauge, name, help);
    }
    Families& value(double value) {
        ClientMetric metric;
        metric.counter.value = value;
        metric.gauge.value = value;
        families_.back().metric.push_back(std::move(metric));
        return *this;
    }
    Families& value(uint64_t count) { return value(static_cast<double>(count)); }
    Families& value(const char* label, const char* of, double number) {
        value(number);
        families_.back().metric.back().label.push_back({label, of});
        return *this;
    }
    std::string text() const { return prometheus::TextSerializer().Serialize(families_); }

private:
    std::vector<MetricFamily> families_;
};

void add_state(Families& to, const FeedStatus& status) {
    to.gauge("vorn_feed_state", "State of the feed as its bus shows it: 1 for the one it is in.");
    for (const FeedState state : {FeedState::kLive, FeedState::kLoading, FeedState::kStale,
                                  FeedState::kDead, FeedState::kStopped, FeedState::kAbsent}) {
        to.value("state", feed_state_name(state), state == status.state ? 1 : 0);
    }
    to.gauge("vorn_feed_phase", "Phase of the feed: 1 for the one it is in.");
    for (uint32_t phase = 0; phase <= VORN_MD_PHASE_LIVE; ++phase) {
        to.value("phase", feed_phase_name(phase),
                 phase == status.phase && status.state != FeedState::kAbsent ? 1 : 0);
    }
    if (status.last_update_ns != 0) {
        to.gauge("vorn_feed_last_update_age_seconds", "Time since the feed's last update.")
            .value(seconds(status.age_ns));
    }
    if (status.state != FeedState::kAbsent) {
        to.gauge("vorn_feed_heartbeat_age_seconds", "Time since the last heartbeat of the writer.")
            .value(seconds(status.heartbeat_age_ns));
        to.gauge("vorn_bus_generation", "Writers that the bus has had.").value(status.generation);
        to.counter("vorn_bus_records_total", "Records written to the ring of this writer's bus.")
            .value(status.ring_head);
    }
}

void add_incremental(Families& to, const vorn_md_counters_t& counters) {
    const struct {
        const char* name;
        const char* help;
        uint64_t value;
    } kCounters[] = {
        {"vorn_feed_cycles_total", "Bring-ups of the feed.", counters.cycles},
        {"vorn_feed_restarts_total", "Bring-ups behind the first one.", counters.restarts},
        {"vorn_feed_frames_total", "Decode buffers of a usable length.", counters.frames},
        {"vorn_feed_updates_total", "Changes applied to a record.", counters.updates},
        {"vorn_feed_silent_updates_total", "Of the updates, those without a callback.",
         counters.silent_updates},
        {"vorn_feed_stale_total", "Changes that were there already.", counters.stale},
        {"vorn_feed_unsubscribed_total", "Changes of instruments that are not subscribed.",
         counters.unsubscribed},
        {"vorn_feed_options_skipped_total", "Changes of options while those are not handled.",
         counters.options_skipped},
        {"vorn_feed_restored_books_total", "Changes taken back because the book came out wrong.",
         counters.restored_books},
        {"vorn_feed_gaps_total", "Changes ahead of the expected number.", counters.gaps},
        {"vorn_feed_refused_total", "Frames with an unknown topic or number, or without a header.",
         counters.refused},
        {"vorn_feed_overflows_total", "Times that the card's ring overtook the feed.",
         counters.overflows},
        {"vorn_feed_abnormal_lengths_total", "Receive results that no decode buffer has.",
         counters.abnormal_lengths},
        {"vorn_feed_cached_total", "Frames put into the cache.", counters.cached},
        {"vorn_feed_replayed_total", "Frames taken out of the cache.", counters.replayed},
        {"vorn_feed_cache_dropped_total", "Frames lost because the cache was full.",
         counters.cache_dropped},
    };
    for (const auto& counter : kCounters) {
        to.counter(counter.name, counter.help).value(counter.value);
    }
}

void add_snapshot(Families& to, const vorn_md_counters_t& counters) {
    to.counter("vorn_feed_snapshot_frames_total",
               "Frames of the snapshot channel by what became of them.");
    for (uint32_t fate = 0; fate < VORN_MD_FATE_CNT; ++fate) {
        to.value("fate", snapshot_fate_name(fate),
                 static_cast<double>(counters.snapshot_fate[fate]));
    }
    to.counter("vorn_feed_snapshot_rounds_total", "Snapshot rounds finished.");
    for (uint32_t feed = 0; feed < VORN_MD_FEED_CNT; ++feed) {
        to.value("feed", feed_name(feed), static_cast<double>(counters.snapshot_rounds[feed]));
    }
    to.counter("vorn_feed_snapshot_overflows_total",
               "Times that the card's ring overtook the snapshot channel.")
        .value(counters.snapshot_overflows);
    to.counter("vorn_feed_snapshot_wipes_total", "Times that what was loaded was taken back.")
        .value(counters.snapshot_wipes);
    to.counter("vorn_feed_phase_seconds_total", "Time spent in each phase.");
    for (uint32_t phase = 0; phase <= VORN_MD_PHASE_LIVE; ++phase) {
        to.value("phase", feed_phase_name(phase), seconds(counters.time_in_phase_ns[phase]));
    }
}

void add_server(Families& to, const FeedStatus& status, const ServerLoad& load) {
    to.gauge("vorn_serve_connections", "Open connections.").value(load.connections);
    to.gauge("vorn_serve_streams", "Pages that receive a stream.").value(load.streams);
    to.counter("vorn_serve_requests_total", "Requests.").value(load.requests);
    to.counter("vorn_serve_refused_connections_total", "Connections beyond the bound.")
        .value(load.refused);
    to.counter("vorn_serve_bus_records_lost_total",
               "Records of this bus that were overwritten before the server read them.")
        .value(status.ring_lost);
}

} // namespace

std::string metrics_text(const FeedStatus& status, std::size_t instruments,
                         const ServerLoad& load) {
    Families families;
    add_state(families, status);
    families.gauge("vorn_feed_instruments", "Instruments in the table.")
        .value(static_cast<uint64_t>(instruments));
    if (status.has_counters) {
        add_incremental(families, status.counters);
        add_snapshot(families, status.counters);
    }
    add_server(families, status, load);
    return families.text();
}

} // namespace vorn_cli
