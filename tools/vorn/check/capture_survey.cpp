#include "tools/vorn/check/capture_survey.h"

#include "tools/vorn/capture/capture_reader.h"
#include "tools/vorn/capture/mdqp_walk.h"
#include "tools/vorn/exit_code.h"

#include <algorithm>
#include <fmt/format.h>

namespace vorn_cli {

namespace {

using wirekit::get_le16;
using wirekit::get_le32;

constexpr std::size_t kDecodeHeader = 24;
constexpr uint16_t kFieldIncremental = 3;

} // namespace

void CaptureSurveyor::add_frame(std::span<const uint8_t> frame) {
    ++survey_.frames;
    const wirekit::ParsedFrame parsed = wirekit::parse_frame(frame);
    if (parsed.kind == wirekit::ParsedFrame::Kind::kTcp) {
        add_segment(parsed);
    } else if (parsed.kind == wirekit::ParsedFrame::Kind::kUdp) {
        add_datagram(parsed);
    }
}

void CaptureSurveyor::add_segment(const wirekit::ParsedFrame& frame) {
    const StreamKey key{frame.from.ip, frame.from.port, frame.to.ip, frame.to.port};
    if ((frame.tcp_flags & (wirekit::kTcpSyn | wirekit::kTcpRst)) != 0) {
        streams_.erase(key); // sequence numbers begin anew
        return;
    }
    if (frame.payload.empty()) {
        return;
    }
    if (!frame.checksum_ok) {
        ++survey_.bad_checksums;
        return;
    }
    auto found = streams_.find(key);
    if (found == streams_.end()) {
        if (frame.payload.size() < 2 || !mdqp::begins_message(frame.payload)) {
            return;
        }
        found = streams_.emplace(key, Stream{}).first;
        survey_.server_ports.insert(frame.from.port);
    }
    Stream& stream = found->second;
    stream.messages.add(frame.tcp_seq, frame.payload,
                        [&](std::span<const uint8_t> message) { take_message(stream, message); });
}

void CaptureSurveyor::take_message(Stream& stream, std::span<const uint8_t> message) {
    mdqp::for_each_field(message, [&](uint16_t field_id, std::span<const uint8_t> data) {
        if (field_id == mdqp::kFieldSnap && data.size() >= mdqp::kSnapSize) {
            stream.topic_id = static_cast<int16_t>(get_le16(&data[0]));
            survey_.snapshot_topics.insert(stream.topic_id);
        } else if (field_id == mdqp::kFieldInstInfo && data.size() >= mdqp::kInstInfoSize) {
            std::string inst_id(mdqp::identifier(data));
            if (listed_.emplace(stream.topic_id, inst_id).second) {
                survey_.instruments.push_back(
                    {std::move(inst_id), static_cast<int32_t>(get_le32(&data[mdqp::kInstNoAt])),
                     stream.topic_id});
            }
        }
    });
}

void CaptureSurveyor::add_datagram(const wirekit::ParsedFrame& frame) {
    if (frame.to.ip >> 28 != 0xE || frame.payload.size() < kDecodeHeader ||
        get_le16(&frame.payload[12]) != kFieldIncremental) {
        return;
    }
    auto group = std::find_if(survey_.groups.begin(), survey_.groups.end(),
                              [&](const auto& one) { return one.to == frame.to; });
    if (group == survey_.groups.end()) {
        group = survey_.groups.insert(group, {frame.to, {}});
    }
    group->topics.insert(get_le16(&frame.payload[0]));
}

CaptureSurvey CaptureSurveyor::take() {
    return std::move(survey_);
}

CaptureSurvey survey_capture(const std::string& path,
                             const std::function<void(uint64_t)>& on_frame) {
    CaptureReader capture(path);
    CaptureSurveyor surveyor;
    CaptureFrame frame;
    for (uint64_t frames = 1; capture.next(frame); ++frames) {
        surveyor.add_frame(frame.bytes);
        on_frame(frames);
    }
    if (!capture.damage().empty()) {
        throw Failure(kFailed, fmt::format("{}: is damaged: {}", path, capture.damage()));
    }
    return surveyor.take();
}

} // namespace vorn_cli
