#pragma once

// One direction of a TCP connection that carries snapshots: puts segments in order, joins messages.
// Segments may come twice, out of order, or not at all. What it holds is bounded: early segments
// by number and bytes, an unfinished message by what a length of 16 bits can say.

#include "wirekit/bytes.h"

#include <functional>
#include <map>

namespace vorn_cli {

class SnapshotStream {
public:
    // What a segment was to those before it.
    enum class Arrival {
        kNext,  // in sequence, also when only its end is new
        kAhead, // something before it is missing so far
        kOld,   // nothing new in it
    };
    using OnMessage = std::function<void(std::span<const uint8_t> message)>;

    // Takes a segment's payload, which is not empty. The first one begins the sequence.
    // `on_message` is called for every message that is whole now.
    Arrival add(uint32_t seq, std::span<const uint8_t> payload, const OnMessage& on_message);
    // The next segment begins the sequence anew.
    void restart();

    // Stretches that were given up because too much waited for them.
    uint64_t holes() const { return holes_; }
    // Early segments that still wait for something.
    std::size_t waiting() const { return ahead_.size(); }

private:
    void drain(const OnMessage& on_message);
    void take_payload(std::span<const uint8_t> payload, const OnMessage& on_message);

    bool started_ = false;
    uint64_t next_seq_ = 0; // 32-bit sequence numbers, continued beyond their wrap
    uint64_t holes_ = 0;
    wirekit::Bytes pending_;                   // a message that is not complete yet
    std::map<uint64_t, wirekit::Bytes> ahead_; // early segments by sequence number
    std::size_t ahead_bytes_ = 0;
};

} // namespace vorn_cli
