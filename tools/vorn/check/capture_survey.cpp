#include "tools/vorn/check/capture_survey.h"

#include "tools/vorn/exit_code.h"

#include <algorithm>
#include <fmt/format.h>
#include <memory>
#include <pcap/pcap.h>

namespace vorn_cli {

namespace {

using wirekit::get_le16;
using wirekit::get_le32;

constexpr std::size_t kMessageHeader = 8;
constexpr std::size_t kFieldHeader = 4;
constexpr uint8_t kTypeSnapshot = 0x32;
constexpr uint8_t kFlagMoreBit = 0x10;
constexpr uint16_t kFieldInstInfo = 0x0101;
constexpr std::size_t kInstInfoSize = 112;
constexpr std::size_t kIdentifierWidth = 31;
constexpr uint16_t kFieldSnap = 0x1001;
constexpr std::size_t kSnapSize = 6;
constexpr std::size_t kDecodeHeader = 24;
constexpr uint16_t kFieldIncremental = 3;
constexpr std::size_t kMaxAhead = 500; // then what is missing counts as lost

// The begin of a snapshot message: flag 1, or 0x11 when more follow, and the type.
bool begins_message(std::span<const uint8_t> bytes) {
    return bytes.size() >= 2 && (bytes[0] & ~kFlagMoreBit) == 1 && bytes[1] == kTypeSnapshot;
}

struct ClosePcap {
    void operator()(pcap_t* capture) const { pcap_close(capture); }
};

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
        if (!begins_message(frame.payload)) {
            return;
        }
        found = streams_.emplace(key, Stream{}).first;
        // One wrap up, so that no sequence number is below zero.
        found->second.next_seq = (uint64_t{1} << 32) + frame.tcp_seq;
        survey_.server_ports.insert(frame.from.port);
    }
    Stream& stream = found->second;
    const auto distance =
        static_cast<int32_t>(frame.tcp_seq - static_cast<uint32_t>(stream.next_seq));
    const uint64_t seq = stream.next_seq + static_cast<uint64_t>(static_cast<int64_t>(distance));
    stream.ahead.try_emplace(seq, frame.payload.begin(), frame.payload.end());
    drain(stream);
}

// Takes what is next in sequence. When too much waits for something that does not come, goes on
// behind the hole, at the begin of a message.
void CaptureSurveyor::drain(Stream& stream) {
    while (!stream.ahead.empty()) {
        const auto first = stream.ahead.begin();
        const uint64_t seq = first->first;
        if (seq > stream.next_seq) {
            if (stream.ahead.size() <= kMaxAhead) {
                return;
            }
            stream.pending.clear();
            stream.next_seq = seq;
        }
        const wirekit::Bytes payload = std::move(first->second);
        stream.ahead.erase(first);
        const uint64_t known = stream.next_seq - seq; // bytes that have come before
        if (known < payload.size()) {
            stream.next_seq = seq + payload.size();
            take_payload(stream, std::span(payload).subspan(known));
        }
    }
}

void CaptureSurveyor::take_payload(Stream& stream, std::span<const uint8_t> payload) {
    if (stream.pending.empty() && !begins_message(payload)) {
        return; // behind a hole, or not a snapshot
    }
    wirekit::append(stream.pending, payload);
    std::span<const uint8_t> left = stream.pending;
    while (left.size() >= kMessageHeader && begins_message(left)) {
        const std::size_t size = kMessageHeader + get_le16(&left[2]);
        if (left.size() < size) {
            break;
        }
        take_message(stream, left.first(size));
        left = left.subspan(size);
    }
    const bool lost = left.size() >= 2 && !begins_message(left);
    stream.pending = lost ? wirekit::Bytes() : wirekit::Bytes(left.begin(), left.end());
}

void CaptureSurveyor::take_message(Stream& stream, std::span<const uint8_t> message) {
    std::span<const uint8_t> left = message.subspan(kMessageHeader);
    while (left.size() >= kFieldHeader) {
        const uint16_t field_id = get_le16(&left[0]);
        const std::size_t size = get_le16(&left[2]);
        left = left.subspan(kFieldHeader);
        if (left.size() < size) {
            return;
        }
        if (field_id == kFieldSnap && size >= kSnapSize) {
            stream.topic_id = static_cast<int16_t>(get_le16(&left[0]));
            survey_.snapshot_topics.insert(stream.topic_id);
        } else if (field_id == kFieldInstInfo && size >= kInstInfoSize) {
            const auto* const text = reinterpret_cast<const char*>(left.data());
            std::string inst_id(text, std::find(text, text + kIdentifierWidth, '\0'));
            if (listed_.emplace(stream.topic_id, inst_id).second) {
                survey_.instruments.push_back({std::move(inst_id),
                                               static_cast<int32_t>(get_le32(&left[108])),
                                               stream.topic_id});
            }
        }
        left = left.subspan(size);
    }
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
    char reason[PCAP_ERRBUF_SIZE] = "";
    const std::unique_ptr<pcap_t, ClosePcap> capture(pcap_open_offline(path.c_str(), reason));
    if (capture == nullptr) {
        throw Failure(kFailed, fmt::format("{}: cannot be read as a capture: {}", path, reason));
    }
    if (pcap_datalink(capture.get()) != DLT_EN10MB) {
        throw Failure(kFailed, fmt::format("{}: is not a capture of Ethernet", path));
    }
    CaptureSurveyor surveyor;
    pcap_pkthdr* header = nullptr;
    const u_char* bytes = nullptr;
    int result = 0;
    for (uint64_t frames = 1; (result = pcap_next_ex(capture.get(), &header, &bytes)) == 1;
         ++frames) {
        surveyor.add_frame({bytes, header->caplen});
        on_frame(frames);
    }
    if (result != PCAP_ERROR_BREAK) {
        throw Failure(kFailed, fmt::format("{}: is damaged: {}", path, pcap_geterr(capture.get())));
    }
    return surveyor.take();
}

} // namespace vorn_cli
