#include "softcard/firmware/round_tracker.h"

#include "wirekit/ethernet.h"
#include "wirekit/mdqp.h"

#include <algorithm>

namespace softcard {

namespace {

using wirekit::get_be16;
using wirekit::get_be32;
using wirekit::get_le16;
using wirekit::kEthernetSize;

constexpr std::size_t kSmallestIpv4 = 20;
constexpr std::size_t kSmallestTcp = 20;
constexpr uint8_t kProtocolTcp = 6;
// A receiver takes frames of up to 2048 bytes and verifies segments of up to 2036.
constexpr std::size_t kLargestFrame = 2048;
constexpr std::size_t kLargestSegment = 2036;
// A round starts with a payload of at least this size that begins with a "more" message.
constexpr std::size_t kSmallestStart = 45;
constexpr uint32_t kMessageHeader = 8;

// Sequence numbers wrap; the distance decides which of two comes first.
bool is_before(uint32_t a, uint32_t b) {
    return static_cast<int32_t>(a - b) < 0;
}

bool checksum_is_right(const uint8_t* ip, std::span<const uint8_t> segment) {
    uint32_t sum = kProtocolTcp + static_cast<uint32_t>(segment.size());
    sum = wirekit::add_checksum(sum, {ip + 12, 8}); // both addresses
    return wirekit::fold_checksum(wirekit::add_checksum(sum, segment)) == 0;
}

} // namespace

std::size_t RoundTracker::KeyHash::operator()(const Key& key) const {
    const uint64_t ports = static_cast<uint64_t>(key.from_port) << 16 | key.to_port;
    const uint64_t hosts = static_cast<uint64_t>(key.from_ip) << 32 | key.to_ip;
    return static_cast<std::size_t>((hosts ^ ports * 0x9E3779B97F4A7C15u) * 0xD6E8FEB86659FD93u >>
                                    16);
}

// Whether a receiver that only listens takes the frame, judged as such a one does: from the length
// fields and the checksum, without a look at the Ethernet type or at fragment bits.
bool RoundTracker::accept(std::span<const uint8_t> frame, Segment& segment) {
    if (frame.size() < kEthernetSize + kSmallestIpv4 + kSmallestTcp ||
        frame.size() > kLargestFrame) {
        return false;
    }
    const uint8_t* const ip = frame.data() + kEthernetSize;
    const std::size_t ip_size = std::size_t{4} * (ip[0] & 0x0F);
    const std::size_t total = get_be16(ip + 2);
    if (ip_size < kSmallestIpv4 || ip[9] != kProtocolTcp || total < ip_size + kSmallestTcp ||
        total - ip_size > kLargestSegment || frame.size() < kEthernetSize + total) {
        return false;
    }
    const auto tcp = frame.subspan(kEthernetSize + ip_size, total - ip_size);
    const std::size_t tcp_size = static_cast<std::size_t>(tcp[12] >> 4) * 4;
    if (tcp_size < kSmallestTcp || tcp_size > tcp.size() || !checksum_is_right(ip, tcp)) {
        return false;
    }
    segment.key = {get_be32(ip + 12), get_be32(ip + 16), get_be16(&tcp[0]), get_be16(&tcp[2])};
    segment.seq = get_be32(&tcp[4]);
    segment.flags = tcp[13];
    segment.payload = tcp.subspan(tcp_size);
    return true;
}

bool RoundTracker::looks_like_start(std::span<const uint8_t> payload) {
    return payload.size() >= kSmallestStart && payload[0] == wirekit::kFlagMore &&
           static_cast<int8_t>(payload[1]) == wirekit::kTypeSnapshot;
}

bool RoundTracker::see(std::span<const uint8_t> frame) {
    Segment segment;
    if (!accept(frame, segment)) {
        return false;
    }
    const auto found = streams_.find(segment.key);
    if ((segment.flags & wirekit::kTcpSyn) != 0 && found != streams_.end()) {
        // A new connection on the same ports: what its numbers mean to a receiver in the middle of
        // a round is open until the next start.
        found->second.disordered = true;
        found->second.lost = true;
        found->second.highest = segment.seq + 1;
    }
    if (segment.payload.empty()) {
        return false;
    }
    constexpr uint8_t kReset = wirekit::kTcpRst | wirekit::kTcpAck;
    if ((segment.flags & kReset) == kReset) {
        reset(); // a receiver drops every stream, and what it had of the snapshot
        return false;
    }
    if (found != streams_.end()) {
        return see_known(found->second, segment);
    }
    if (!looks_like_start(segment.payload)) {
        return false;
    }
    return start(streams_[segment.key], segment);
}

bool RoundTracker::see_known(Stream& stream, const Segment& segment) {
    if (stream.disordered) {
        return see_disordered(stream, segment);
    }
    const uint32_t end = segment.seq + static_cast<uint32_t>(segment.payload.size());
    if (segment.seq == stream.expected) {
        stream.expected = end;
        return walk(stream, segment.payload);
    }
    const bool starts = looks_like_start(segment.payload);
    if (stream.round_ended && starts && !stream.lost) {
        return start(stream, segment); // the next round may begin at any number
    }
    if (is_before(segment.seq, stream.expected)) {
        return stream.lost; // a repetition: it may fill the gap in front of what a receiver holds
    }
    const bool was_lost = stream.lost;
    stream.lost = true;
    if (starts) {
        return start(stream, segment) || was_lost;
    }
    stream.disordered = true;
    stream.highest = end;
    return was_lost;
}

bool RoundTracker::see_disordered(Stream& stream, const Segment& segment) {
    const uint32_t end = segment.seq + static_cast<uint32_t>(segment.payload.size());
    if (!is_before(segment.seq, stream.highest) && looks_like_start(segment.payload)) {
        start(stream, segment);
    } else if (is_before(stream.highest, end)) {
        stream.highest = end;
    }
    return true;
}

bool RoundTracker::start(Stream& stream, const Segment& segment) {
    stream.disordered = false;
    stream.expected = segment.seq + static_cast<uint32_t>(segment.payload.size());
    stream.header_bytes = 0;
    stream.body_left = 0;
    return walk(stream, segment.payload);
}

// Walks the messages in bytes that follow on what was walked before.
bool RoundTracker::walk(Stream& stream, std::span<const uint8_t> payload) {
    bool round_may_end = false;
    while (!payload.empty()) {
        if (stream.header_bytes < kMessageHeader) {
            stream.round_ended = false;
            if (stream.header_bytes < sizeof(stream.header)) {
                stream.header[stream.header_bytes] = payload[0];
            }
            payload = payload.subspan(1);
            if (++stream.header_bytes < kMessageHeader) {
                continue;
            }
            const bool valid = (stream.header[0] & ~0x10) == wirekit::kFlagLast &&
                               static_cast<int8_t>(stream.header[1]) == wirekit::kTypeSnapshot;
            if (!valid) { // not where a receiver looks for the next message
                stream.disordered = true;
                stream.lost = true;
                stream.highest = stream.expected;
                return true;
            }
            stream.body_left = get_le16(&stream.header[2]);
        } else {
            const auto part = std::min<std::size_t>(payload.size(), stream.body_left);
            payload = payload.subspan(part);
            stream.body_left -= static_cast<uint32_t>(part);
        }
        if (stream.body_left == 0) {
            round_may_end = message_ends(stream) || round_may_end;
        }
    }
    return round_may_end;
}

bool RoundTracker::message_ends(Stream& stream) {
    stream.header_bytes = 0;
    stream.round_ended = stream.header[0] == wirekit::kFlagLast;
    return stream.round_ended;
}

} // namespace softcard
