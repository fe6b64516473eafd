#include "faults/snapshot_streams.h"

#include "wirekit/mdqp.h"

#include <algorithm>
#include <string_view>

namespace faults {

namespace {

using wirekit::get_le16;
using wirekit::get_le32;

constexpr std::size_t kMostStreams = 64;
constexpr std::size_t kMostInstruments = 65536;
constexpr std::size_t kMessageHeader = 8;
constexpr std::size_t kFieldHeader = 4;
constexpr std::size_t kSmallestStart = 45;
constexpr uint16_t kFieldSnap = 0x1001;
constexpr std::size_t kSnapSize = 6;
constexpr uint16_t kFieldInstInfo = 0x0101;
constexpr std::size_t kInstInfoSize = 112;
constexpr std::size_t kIdentifierSize = 31;
constexpr std::size_t kNumberOffset = 108;

uint64_t instrument_key(uint16_t topic, uint32_t number) {
    return static_cast<uint64_t>(topic) << 32 | number;
}

bool is_message(uint8_t flag, uint8_t type) {
    return (flag & ~0x10) == wirekit::kFlagLast &&
           static_cast<int8_t>(type) == wirekit::kTypeSnapshot;
}

// The first message of a round begins with the field that names the topic.
bool starts_round(std::span<const uint8_t> payload) {
    return payload.size() >= kSmallestStart && payload[0] == wirekit::kFlagMore &&
           is_message(payload[0], payload[1]) && get_le16(&payload[kMessageHeader]) == kFieldSnap &&
           get_le16(&payload[kMessageHeader + 2]) == kSnapSize;
}

} // namespace

SnapshotStreams::Stream* SnapshotStreams::find(const StreamKey& key) {
    const auto found = std::find_if(streams_.begin(), streams_.end(),
                                    [&key](const Stream& stream) { return stream.key == key; });
    return found == streams_.end() ? nullptr : &*found;
}

const SnapshotSegment& SnapshotStreams::see(const wirekit::ParsedFrame& frame) {
    segment_.of_round = false;
    segment_.fields.clear();
    if (frame.kind != wirekit::ParsedFrame::Kind::kTcp || !frame.checksum_ok ||
        (frame.tcp_flags & wirekit::kTcpRst) != 0) {
        return segment_;
    }
    const StreamKey key{frame.from, frame.to};
    Stream* stream = find(key);
    if ((frame.tcp_flags & wirekit::kTcpSyn) != 0 && stream != nullptr) {
        stream->in_round = false;
    }
    if (frame.payload.empty()) {
        return segment_;
    }
    const bool continues =
        stream != nullptr && stream->in_round && frame.tcp_seq == stream->expected_seq;
    const bool starts = !continues && starts_round(frame.payload);
    if (!continues && !starts) {
        return segment_;
    }
    if (stream == nullptr) {
        if (streams_.size() == kMostStreams) {
            streams_.erase(streams_.begin());
        }
        stream = &streams_.emplace_back();
        stream->key = key;
    }
    if (starts) {
        stream->topic = get_le16(&frame.payload[kMessageHeader + kFieldHeader]);
        stream->in_round = true;
        stream->header_have = 0;
        stream->field_have = 0;
        stream->body_left = 0;
    }
    stream->expected_seq = frame.tcp_seq + static_cast<uint32_t>(frame.payload.size());
    segment_.of_round = true;
    segment_.starts_round = starts;
    segment_.ends_round = false;
    segment_.ends_message = false;
    segment_.stream = key;
    segment_.topic = stream->topic;
    walk(*stream, frame.payload);
    return segment_;
}

void SnapshotStreams::walk(Stream& stream, std::span<const uint8_t> payload) {
    // Where the data of the field being walked begins; behind the end if that was in an earlier
    // one.
    const bool data_is_next =
        stream.field_have == kFieldHeader && stream.field_left == get_le16(&stream.field_header[2]);
    std::size_t field_begin = data_is_next ? 0 : payload.size();
    for (std::size_t at = 0; at < payload.size();) {
        if (stream.header_have < kMessageHeader) {
            stream.header[stream.header_have++] = payload[at++];
            if (stream.header_have < kMessageHeader) {
                continue;
            }
            if (!is_message(stream.header[0], stream.header[1])) {
                stream.in_round = false; // no longer at a message's border: wait for a new round
                return;
            }
            stream.body_left = get_le16(&stream.header[2]);
            stream.field_have = 0;
        } else {
            walk_field(stream, payload, at, field_begin);
        }
        if (stream.body_left > 0) {
            continue;
        }
        stream.header_have = 0;
        segment_.ends_message = at == payload.size();
        if (stream.header[0] == wirekit::kFlagLast) {
            stream.in_round = false;
            stream.completed_a_round = true;
            segment_.ends_round = true;
            return;
        }
    }
}

// Moves on by one byte of a field's header or by what is there of its data.
void SnapshotStreams::walk_field(Stream& stream, std::span<const uint8_t> payload, std::size_t& at,
                                 std::size_t& field_begin) {
    if (stream.field_have < kFieldHeader) {
        stream.field_header[stream.field_have++] = payload[at++];
        --stream.body_left;
        if (stream.field_have == kFieldHeader) {
            stream.field_left = get_le16(&stream.field_header[2]);
            field_begin = at;
        }
    } else {
        const std::size_t part =
            std::min({stream.field_left, stream.body_left, payload.size() - at});
        at += part;
        stream.field_left -= part;
        stream.body_left -= part;
    }
    if (stream.field_have == kFieldHeader && stream.field_left == 0) {
        note_field(stream, payload, field_begin, at);
        stream.field_have = 0;
        field_begin = payload.size();
    }
}

void SnapshotStreams::note_field(const Stream& stream, std::span<const uint8_t> payload,
                                 std::size_t field_begin, std::size_t end) {
    const uint16_t size = get_le16(&stream.field_header[2]);
    if (field_begin + size != end) {
        return; // it began in an earlier segment
    }
    const uint16_t id = get_le16(stream.field_header);
    segment_.fields.push_back({id, field_begin, size});
    if (id == kFieldInstInfo && size == kInstInfoSize) {
        note_instrument(stream.topic, payload.subspan(field_begin, size));
    }
}

void SnapshotStreams::note_instrument(uint16_t topic, std::span<const uint8_t> data) {
    const std::string_view field(reinterpret_cast<const char*>(data.data()), kIdentifierSize);
    const std::string_view id = field.substr(0, field.find('\0'));
    const bool ordered =
        id.find('-') == std::string_view::npos && id.find("TAS") == std::string_view::npos;
    if (ordered && ordered_.size() < kMostInstruments) {
        ordered_.insert(instrument_key(topic, get_le32(&data[kNumberOffset])));
    }
}

bool SnapshotStreams::every_stream_completed_a_round() const {
    return !streams_.empty() &&
           std::all_of(streams_.begin(), streams_.end(),
                       [](const Stream& stream) { return stream.completed_a_round; });
}

bool SnapshotStreams::in_round() const {
    return std::any_of(streams_.begin(), streams_.end(),
                       [](const Stream& stream) { return stream.in_round; });
}

bool SnapshotStreams::has_ordered_book(uint16_t topic, uint32_t instrument_number) const {
    return ordered_.empty() || ordered_.count(instrument_key(topic, instrument_number)) != 0;
}

} // namespace faults
