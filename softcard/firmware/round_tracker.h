#pragma once

// Tells after which raw frames a snapshot round may have ended.
//
// Follows the MDQP messages of each TCP stream (one direction of one connection). What must stay
// true: a frame with which a receiver completes the last message of a round is always reported;
// reporting one too many costs a few milliseconds, missing one costs determinism. So the exact walk
// is trusted only while it must agree with any receiver's: in order, ahead of everything seen
// before, from a start of a round. In every other case each frame may be an end.

#include <cstdint>
#include <span>
#include <unordered_map>

namespace softcard {

class RoundTracker {
public:
    // Forgets every stream.
    void reset() { streams_.clear(); }

    // One raw frame in the order of delivery; whether a round may end with it.
    bool see(std::span<const uint8_t> frame);

private:
    struct Key {
        uint32_t from_ip;
        uint32_t to_ip;
        uint16_t from_port;
        uint16_t to_port;
        bool operator==(const Key&) const = default;
    };
    struct KeyHash {
        std::size_t operator()(const Key& key) const;
    };
    struct Stream {
        bool disordered = false;   // message borders unknown
        bool lost = false;         // disordered at some time: a receiver may hold segments back
        bool round_ended = false;  // the last message walked ends a round
        uint32_t expected = 0;     // sequence number of the next byte to walk
        uint32_t highest = 0;      // disordered only: behind the highest byte seen
        uint8_t header[4] = {};    // of the message being walked, as far as it is needed
        uint32_t header_bytes = 0; // of 8
        uint32_t body_left = 0;
    };
    struct Segment {
        Key key{};
        uint32_t seq = 0;
        uint8_t flags = 0;
        std::span<const uint8_t> payload;
    };

    static bool accept(std::span<const uint8_t> frame, Segment& segment);
    static bool looks_like_start(std::span<const uint8_t> payload);
    static bool start(Stream& stream, const Segment& segment);
    static bool walk(Stream& stream, std::span<const uint8_t> payload);
    static bool message_ends(Stream& stream);
    static bool see_known(Stream& stream, const Segment& segment);
    static bool see_disordered(Stream& stream, const Segment& segment);

    std::unordered_map<Key, Stream, KeyHash> streams_;
};

} // namespace softcard
