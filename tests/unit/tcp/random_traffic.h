#pragma once

// Random snapshot traffic: streams of messages, good ones and hostile ones, cut into segments that
// are lost, repeated, reordered, overlapping and damaged on their way.

#include "wirekit/mdqp.h"

#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace tcp_test {

struct TrafficSettings {
    std::vector<uint16_t> src_ports; // server ports of the streams
    std::vector<int16_t> topics;
    bool hostile = false; // fields and headers that no exchange sends
};

class RandomTraffic {
public:
    using Bytes = wirekit::Bytes;

    RandomTraffic(uint64_t seed, TrafficSettings settings)
        : random_(seed), settings_(std::move(settings)) {}

    void set_topics(std::vector<int16_t> topics) { settings_.topics = std::move(topics); }

    // The frames of one sequence, in the order of their arrival.
    std::vector<Bytes> sequence();

    // A number from 0 to limit - 1.
    uint32_t below(uint32_t limit) { return static_cast<uint32_t>(random_() % limit); }
    bool one_in(uint32_t count) { return below(count) == 0; }

private:
    struct Piece { // a segment before it is framed
        uint32_t seq;
        Bytes payload;
    };

    std::vector<Bytes> stream_frames();
    Bytes stream();
    Bytes message(uint8_t flag, bool first);
    void good_instrument(wirekit::MdqpMessageBuilder& message);
    void hostile_field(wirekit::MdqpMessageBuilder& message);
    // Segments of a stream: tiny ones, full ones, or a message each.
    std::vector<Piece> cut(const Bytes& bytes, uint32_t first_seq);
    void disturb(std::vector<Piece>& pieces, const Bytes& bytes, uint32_t first_seq);
    Bytes frame(const Piece& piece, uint16_t src_port, uint16_t dst_port);

    int32_t number();
    double price();
    int32_t volume();
    std::string inst_id();
    template <typename Item>
    Item pick(const std::vector<Item>& from) {
        return from[below(static_cast<uint32_t>(from.size()))];
    }

    std::mt19937_64 random_;
    TrafficSettings settings_;
};

} // namespace tcp_test
