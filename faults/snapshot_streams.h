#pragma once

// Follows the snapshot rounds in the TCP streams that pass by: where rounds and messages begin and
// end, and which fields lie whole in a segment. A stream is known by its first round, whatever its
// ports; only segments in order count. Memory has a bound, whatever passes.

#include "wirekit/ethernet.h"

#include <unordered_set>
#include <vector>

namespace faults {

// One direction of one connection.
struct StreamKey {
    wirekit::Endpoint from;
    wirekit::Endpoint to;
    bool operator==(const StreamKey&) const = default;
};

struct SnapshotField {
    uint16_t id = 0;
    std::size_t at = 0; // of its data, in the payload
    uint16_t size = 0;
};

// What a frame is to the snapshot stream it belongs to.
struct SnapshotSegment {
    bool of_round = false; // carries the next bytes of a round; otherwise nothing below is set
    bool starts_round = false;
    bool ends_round = false;
    bool ends_message = false; // its last byte is a message's last
    StreamKey stream;
    uint16_t topic = 0;
    std::vector<SnapshotField> fields; // those that lie whole in the segment
};

class SnapshotStreams {
public:
    // The next frame. The result is valid until the next call.
    const SnapshotSegment& see(const wirekit::ParsedFrame& frame);

    // Every stream in which a round has begun has completed one, and there is one.
    bool every_stream_completed_a_round() const;
    // In some stream a round has begun and not ended.
    bool in_round() const;

    // Whether the book of an instrument is one whose prices must be in order. Spreads and
    // trade-at-settlement instruments have others. True also when no dictionary was seen.
    bool has_ordered_book(uint16_t topic, uint32_t instrument_number) const;

private:
    struct Stream {
        StreamKey key;
        uint16_t topic = 0;
        bool in_round = false;
        bool completed_a_round = false;
        uint32_t expected_seq = 0;
        // The message and the field being walked.
        uint8_t header[8] = {};
        std::size_t header_have = 0;
        std::size_t body_left = 0;
        uint8_t field_header[4] = {};
        std::size_t field_have = 0;
        std::size_t field_left = 0;
    };

    Stream* find(const StreamKey& key);
    void walk(Stream& stream, std::span<const uint8_t> payload);
    void walk_field(Stream& stream, std::span<const uint8_t> payload, std::size_t& at,
                    std::size_t& field_begin);
    void note_field(const Stream& stream, std::span<const uint8_t> payload, std::size_t field_begin,
                    std::size_t end);
    void note_instrument(uint16_t topic, std::span<const uint8_t> data);

    std::vector<Stream> streams_;
    std::unordered_set<uint64_t> ordered_; // topic and number of what the dictionaries listed
    SnapshotSegment segment_;
};

} // namespace faults
