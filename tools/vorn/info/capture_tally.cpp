#include "tools/vorn/info/capture_tally.h"

#include <algorithm>
#include <utility>

namespace vorn_cli {

namespace {

using wirekit::get_le16;
using wirekit::get_le32;

// Decode buffer: 0 topic, 12 kind, 14 instrument number, 18 change number.
constexpr std::size_t kDecodeHeader = 24;
constexpr uint16_t kIncremental = 3;

bool is_multicast(uint32_t ip) {
    return ip >> 28 == 0xE;
}

} // namespace

CaptureTallies::CaptureTallies(CaptureNames names)
    : names_(std::move(names)), sessions_(names_, changes_) {
    lines_.reserve(kMaxLines);
}

void CaptureTallies::add(const CaptureFrame& frame) {
    const uint64_t now_ns = frame.timestamp_ns;
    capture_.stamps_back += capture_.frames != 0 && now_ns < stamp_before_ ? 1 : 0;
    stamp_before_ = now_ns;
    capture_.first_ns = capture_.frames == 0 ? now_ns : std::min(capture_.first_ns, now_ns);
    capture_.last_ns = std::max(capture_.last_ns, now_ns);
    ++capture_.frames;
    capture_.bytes += frame.length;
    const bool cut = frame.bytes.size() < frame.length;
    capture_.cut += cut ? 1 : 0;

    const wirekit::ParsedFrame parsed = wirekit::parse_frame(frame.bytes);
    if (parsed.kind == wirekit::ParsedFrame::Kind::kUdp) {
        add_datagram(parsed, frame);
    } else if (parsed.kind != wirekit::ParsedFrame::Kind::kTcp) {
        ++capture_.other;
    } else if (names_.is_snapshot_port(parsed.from.port) ||
               names_.is_snapshot_port(parsed.to.port)) {
        ++capture_.snapshot_segments;
        sessions_.add(parsed, cut, now_ns);
    } else {
        ++capture_.other_tcp;
    }
}

void CaptureTallies::add_datagram(const wirekit::ParsedFrame& parsed, const CaptureFrame& frame) {
    LineTally* const line = line_of(parsed);
    if (line == nullptr) {
        ++capture_.other_udp;
        return;
    }
    ++capture_.line_datagrams;
    line->first_ns = line->datagrams == 0 ? frame.timestamp_ns : line->first_ns;
    line->last_ns = frame.timestamp_ns;
    ++line->datagrams;
    line->bytes += frame.length;
    const bool cut = frame.bytes.size() < frame.length;
    line->cut += cut ? 1 : 0;
    line->bad_checksums += !cut && !parsed.checksum_ok ? 1 : 0;
    add_buffer(*line, parsed.payload, frame.timestamp_ns);
}

// Null for other traffic.
LineTally* CaptureTallies::line_of(const wirekit::ParsedFrame& parsed) {
    const auto found = std::find_if(lines_.begin(), lines_.end(),
                                    [&](const LineTally& one) { return one.group == parsed.to; });
    if (found != lines_.end()) {
        return &*found;
    }
    const LineName* const name = names_.line(parsed.to);
    const bool looks_like_one = is_multicast(parsed.to.ip) &&
                                parsed.payload.size() >= kDecodeHeader &&
                                get_le16(&parsed.payload[12]) == kIncremental;
    // Places are left for those that have a name.
    const std::size_t limit = name != nullptr ? kMaxLines : kMaxLines - names_.lines.size();
    if ((name == nullptr && !looks_like_one) || lines_.size() >= limit) {
        return nullptr;
    }
    lines_.emplace_back();
    lines_.back().group = parsed.to;
    lines_.back().name = name;
    return &lines_.back();
}

void CaptureTallies::add_buffer(LineTally& line, std::span<const uint8_t> buffer,
                                uint64_t time_ns) {
    if (buffer.size() < kDecodeHeader) {
        ++line.too_short;
        return;
    }
    if (get_le16(&buffer[12]) != kIncremental) {
        ++line.not_incremental;
        return;
    }
    const int topic_id = get_le16(&buffer[0]);
    if (const auto known = capture_.topics.find(topic_id); known != capture_.topics.end()) {
        ++known->second;
    } else if (capture_.topics.size() < kMaxTopics) {
        capture_.topics.emplace(topic_id, 1);
    }
    const TopicName* const topic = names_.topic(topic_id);
    if (topic == nullptr) {
        ++line.other_topic;
        return;
    }
    const uint32_t inst_no = get_le32(&buffer[14]);
    if (inst_no >= kSideLimit[static_cast<std::size_t>(topic->side)]) {
        ++line.out_of_range;
        return;
    }
    ++line.changes;
    const Line which = line.name == nullptr     ? Line::kOther
                       : line.name->line == 'A' ? Line::kA
                                                : Line::kB;
    changes_.add(
        {topic->side, inst_no, get_le32(&buffer[18]), topic_id, which, time_ns, capture_.frames});
}

void CaptureTallies::finish() {
    // Those with a name first, as the configuration has them; the others as they came.
    std::stable_sort(lines_.begin(), lines_.end(), [](const LineTally& a, const LineTally& b) {
        return a.name != nullptr && (b.name == nullptr || a.name < b.name);
    });
    sessions_.finish();
}

} // namespace vorn_cli
