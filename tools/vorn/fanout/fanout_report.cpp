#include "tools/vorn/fanout/fanout_report.h"

#include "bus/bus_process.h"
#include "tools/vorn/feed/feed_text.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace vorn_cli {

nlohmann::json fanout_json(const FanoutParts& parts) {
    const SourceCounts& source = parts.source.counts();
    const SenderCounts& sender = parts.sender.counts();
    return {
        {"type", "fanout"},
        {"time_ns", vorn_bus::clock_ns(CLOCK_REALTIME)},
        {"bus", source_state_name(parts.source.state())},
        {"connected", parts.link.connected()},
        {"server", parts.link.server()},
        {"reconnects", parts.link.reconnects()},
        {"trouble", parts.sender.trouble()},
        {"updates", source.updates},
        {"events", source.events},
        {"values", source.values},
        {"dropped", source.dropped},
        {"stale_events", source.stale_events},
        {"behind", parts.source.behind()},
        {"waiting", parts.lanes.size() - parts.lanes.under_way()},
        {"under_way", parts.lanes.under_way()},
        {"stored", sender.stored},
        {"duplicates", sender.duplicates},
        {"known", sender.known},
        {"superseded", sender.superseded},
        {"attempts", sender.attempts},
        {"retries", sender.retries},
        {"refusals", sender.refusals},
        {"mark_reads", sender.mark_reads},
    };
}

std::string fanout_line(const FanoutParts& parts, uint64_t before, double seconds) {
    const SenderCounts& sender = parts.sender.counts();
    return fmt::format(
        "{}/s, {} stored, {} duplicates, {} known, {} waiting, {} dropped{}",
        grouped(static_cast<uint64_t>(static_cast<double>(sender.over() - before) / seconds)),
        grouped(sender.stored), grouped(sender.duplicates), grouped(sender.known),
        grouped(parts.lanes.size()), grouped(parts.source.counts().dropped),
        parts.link.connected() ? "" : ", not connected");
}

std::string fanout_trouble(const FanoutParts& parts) {
    if (!parts.link.connected()) {
        return "no connection to a NATS server; what comes waits";
    }
    if (parts.source.state() == SourceState::kAbsent) {
        return parts.source.problem();
    }
    return parts.sender.trouble();
}

} // namespace vorn_cli
