#pragma once

// Ethernet, IPv4, TCP and UDP framing, big-endian, checksums right unless a caller breaks one.
//
//   auto frame = tcp_segment().seq(1000).payload(message).bytes();
//   auto datagram = udp_datagram().to(0xEF010203, 21000).payload(buffer).bytes();
//
// IPv4 addresses are in host order throughout (239.1.2.3 is 0xEF010203).

#include "wirekit/bytes.h"

namespace wirekit {

inline constexpr std::size_t kEthernetSize = 14;
inline constexpr uint8_t kTcpFin = 0x01, kTcpSyn = 0x02, kTcpRst = 0x04, kTcpPsh = 0x08,
                         kTcpAck = 0x10;

struct Endpoint {
    uint32_t ip = 0; // host order
    uint16_t port = 0;
    bool operator==(const Endpoint&) const = default;
};

// One's-complement sum of `bytes` (an odd last byte is padded with zero) added to `sum`, not folded
// to its complement: fold_checksum() does that.
uint32_t add_checksum(uint32_t sum, std::span<const uint8_t> bytes);
uint16_t fold_checksum(uint32_t sum);

class TcpSegmentBuilder {
public:
    // Defaults: 10.1.1.1:33022 to 10.1.1.2:50001, ACK, sequence 1, no payload, no options.
    TcpSegmentBuilder& from(uint32_t ip, uint16_t port);
    TcpSegmentBuilder& to(uint32_t ip, uint16_t port);
    TcpSegmentBuilder& seq(uint32_t sequence_number);
    TcpSegmentBuilder& ack(uint32_t acknowledgement_number);
    TcpSegmentBuilder& flags(uint8_t tcp_flags);
    TcpSegmentBuilder& ip_options(std::size_t size);  // multiple of 4, zero bytes
    TcpSegmentBuilder& tcp_options(std::size_t size); // multiple of 4, no-operation bytes
    TcpSegmentBuilder& payload(std::span<const uint8_t> bytes);
    TcpSegmentBuilder& padding(std::size_t size); // zero bytes behind the IP packet
    TcpSegmentBuilder& bad_checksum();            // the right TCP checksum, one bit flipped

    Bytes bytes() const;

private:
    Endpoint from_{0x0A010101, 33022};
    Endpoint to_{0x0A010102, 50001};
    uint32_t seq_ = 1;
    uint32_t ack_ = 0;
    uint8_t flags_ = kTcpAck;
    std::size_t ip_options_ = 0;
    std::size_t tcp_options_ = 0;
    std::size_t padding_ = 0;
    bool bad_checksum_ = false;
    Bytes payload_;
};

class UdpDatagramBuilder {
public:
    // Defaults: from 10.1.1.1:40000 to 239.4.42.72:21000.
    UdpDatagramBuilder& from(uint32_t ip, uint16_t port);
    UdpDatagramBuilder& to(uint32_t ip, uint16_t port);
    UdpDatagramBuilder& payload(std::span<const uint8_t> bytes);

    Bytes bytes() const;

private:
    Endpoint from_{0x0A010101, 40000};
    Endpoint to_{0xEF042A48, 21000};
    Bytes payload_;
};

inline TcpSegmentBuilder tcp_segment() {
    return {};
}
inline UdpDatagramBuilder udp_datagram() {
    return {};
}

// The builders' bulk path: makes the whole frame in `frame`, reusing its allocation.
// `ip_id` is the IPv4 identification; the frames are never fragmented.
void write_udp_frame(Bytes& frame, Endpoint from, Endpoint to, uint16_t ip_id,
                     std::span<const uint8_t> payload);
void write_tcp_frame(Bytes& frame, Endpoint from, Endpoint to, uint16_t ip_id,
                     uint32_t sequence_number, uint32_t acknowledgement_number, uint8_t tcp_flags,
                     std::span<const uint8_t> payload);

// What a frame is, found without trusting any of its lengths. `payload` points into the frame.
struct ParsedFrame {
    enum class Kind { kOther, kTcp, kUdp };
    Kind kind = Kind::kOther; // kOther: neither, or too damaged to tell; the rest is then unset
    Endpoint from;
    Endpoint to;
    // TCP or UDP payload, as the IP total length (and the UDP length) bounds it; shorter when the
    // frame is cut off, and checksum_ok is then false.
    std::span<const uint8_t> payload;
    uint32_t tcp_seq = 0;
    uint8_t tcp_flags = 0;
    bool checksum_ok = false; // TCP: right; UDP: right or absent
};
ParsedFrame parse_frame(std::span<const uint8_t> frame);

} // namespace wirekit
