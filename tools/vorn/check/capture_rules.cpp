// The configuration held against traffic of the exchange: does what it names occur there?

#include "tools/vorn/check/check_context.h"
#include "tools/vorn/suggest.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>
#include <fmt/ranges.h>

namespace vorn_cli {

namespace {

constexpr std::size_t kComparedSize = 6;
constexpr std::size_t kProductSize = 2;

// The feed's rule: two characters against the first two, anything else against the first six.
bool matches(const std::string& item, const std::string& inst_id) {
    return (item.size() == kProductSize && item == inst_id.substr(0, kProductSize)) ||
           item == inst_id.substr(0, kComparedSize);
}

bool is_option(const std::string& inst_id) {
    return inst_id.size() > kComparedSize;
}

std::string group_text(const wirekit::Endpoint& to) {
    return fmt::format("{}.{}.{}.{}:{}", to.ip >> 24, to.ip >> 16 & 255, to.ip >> 8 & 255,
                       to.ip & 255, to.port);
}

void check_snapshot_port(CheckContext& context) {
    const CaptureSurvey& capture = *context.capture;
    const uint16_t port = context.config.md2ps_snap_port;
    if (capture.server_ports.contains(port) || capture.server_ports.empty()) {
        return;
    }
    context.error(context.line_of("md2ps_snap_port"), "capture-port", "md2ps_snap_port",
                  fmt::format("md2ps_snap_port is {}, but in the capture snapshots come from port "
                              "{}",
                              port, fmt::join(capture.server_ports, ", ")),
                  "the snapshot is never found",
                  fmt::format("write md2ps_snap_port = {}", *capture.server_ports.begin()));
}

void check_feed(CheckContext& context, const FeedConfig& feed) {
    const CaptureSurvey& capture = *context.capture;
    const std::string topic_key = feed.name + "_topic_id";
    if (!capture.snapshot_topics.empty() && !capture.snapshot_topics.contains(feed.topic_id)) {
        context.error(context.line_of(topic_key), "capture-topic", topic_key,
                      fmt::format("{} is {}, but in the capture snapshots have topic {}", topic_key,
                                  feed.topic_id, fmt::join(capture.snapshot_topics, ", ")),
                      fmt::format("the snapshot of {} is never found", feed.name));
    }
    const auto has = [&](const std::string& line) {
        return std::any_of(capture.groups.begin(), capture.groups.end(),
                           [&](const auto& group) { return group_text(group.to) == line; });
    };
    if (capture.groups.empty() || has(feed.line_a) || has(feed.line_b)) {
        return;
    }
    std::vector<std::string> there;
    for (const auto& group : capture.groups) {
        if (group.topics.contains(feed.topic_id)) {
            there.push_back(group_text(group.to));
        }
    }
    const std::string key = feed.name + "_ip_a";
    context.error(context.line_of(key), "capture-group", key,
                  fmt::format("in the capture nothing comes to {} or {}", feed.line_a, feed.line_b),
                  fmt::format("{} receives no changes", feed.name),
                  there.empty() ? ""
                                : fmt::format("its topic comes to {}", fmt::join(there, ", ")));
}

// Why an entry that looks right matches nothing in this dictionary.
void report_unmatched(CheckContext& context, const std::string& item,
                      const std::vector<std::string>& usable) {
    const auto& all = context.capture->instruments;
    const auto listed = std::find_if(all.begin(), all.end(),
                                     [&](const auto& one) { return matches(item, one.inst_id); });
    std::string reason = "the exchange lists no such instrument in the capture";
    std::string instead;
    if (listed == all.end()) {
        std::vector<std::string> candidates;
        candidates.reserve(usable.size());
        for (const std::string& inst_id : usable) {
            candidates.push_back(
                inst_id.substr(0, item.size() == kProductSize ? kProductSize : kComparedSize));
        }
        const std::string guess = closest(item, candidates);
        instead = guess.empty() ? "" : "did you mean " + guess + "?";
    } else if (is_option(listed->inst_id) && !context.config.options) {
        reason =
            fmt::format("only options such as {} match it, and options = norecv", listed->inst_id);
    } else {
        reason = fmt::format("only topic {} lists it, which is no enabled feed", listed->topic_id);
    }
    context.error(context.line_of("insts"), "capture-instrument", "insts",
                  fmt::format("{} matches no instrument", quoted(item)), reason, instead);
}

void check_subscription(CheckContext& context) {
    const CaptureSurvey& capture = *context.capture;
    const EffectiveConfig& config = context.config;
    if (capture.instruments.empty()) {
        context.warning(context.line_of("insts"), "capture-dictionary", "insts",
                        "the capture holds no instrument dictionary",
                        "insts cannot be held against it",
                        capture.bad_checksums == 0
                            ? "capture from before a snapshot on"
                            : fmt::format("{} segments in it have a wrong TCP checksum; the feed "
                                          "rejects those (capture behind checksum offload?)",
                                          capture.bad_checksums));
        return;
    }
    if (config.recvall) {
        return;
    }
    std::vector<std::string> usable;
    for (const auto& instrument : capture.instruments) {
        const bool of_feed =
            (config.shfe2ps.enabled && instrument.topic_id == config.shfe2ps.topic_id) ||
            (config.ine2ps.enabled && instrument.topic_id == config.ine2ps.topic_id);
        if (of_feed && (config.options || !is_option(instrument.inst_id))) {
            usable.push_back(instrument.inst_id);
        }
    }
    for (const std::string& item : config.listen_insts) {
        if (std::none_of(usable.begin(), usable.end(),
                         [&](const std::string& inst_id) { return matches(item, inst_id); })) {
            report_unmatched(context, item, usable);
        }
    }
}

} // namespace

void check_against_capture(CheckContext& context) {
    if (context.capture == nullptr || !context.config.any_feed()) {
        return;
    }
    check_snapshot_port(context);
    for (const FeedConfig* feed : {&context.config.shfe2ps, &context.config.ine2ps}) {
        if (feed->enabled) {
            check_feed(context, *feed);
        }
    }
    check_subscription(context);
}

} // namespace vorn_cli
