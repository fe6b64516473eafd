#include "wirekit/ethernet.h"

#include <algorithm>

namespace wirekit {

namespace {

constexpr uint16_t kEtherTypeIpv4 = 0x0800;
constexpr std::size_t kIpv4Size = 20;
constexpr std::size_t kTcpSize = 20;
constexpr std::size_t kUdpSize = 8;
constexpr uint8_t kProtocolTcp = 6;
constexpr uint8_t kProtocolUdp = 17;
constexpr uint16_t kDontFragment = 0x4000;
constexpr uint16_t kFragmentMask = 0x3FFF; // more-fragments bit and fragment offset
constexpr uint8_t kUnicastTtl = 64;
constexpr uint8_t kMulticastTtl = 16;
constexpr uint8_t kNoOperation = 1; // TCP option
constexpr uint16_t kWindow = 65535;

constexpr bool is_multicast(uint32_t ip) {
    return ip >> 28 == 0xE;
}

// Multicast groups map to 01:00:5e and their low 23 bits. Hosts get a locally administered address
// made from their IPv4 address, so that one host always has the same one.
void put_mac(uint8_t* at, uint32_t ip) {
    if (is_multicast(ip)) {
        at[0] = 0x01;
        at[1] = 0x00;
        at[2] = 0x5E;
        at[3] = static_cast<uint8_t>(ip >> 16 & 0x7F);
        put_be16(at + 4, static_cast<uint16_t>(ip));
    } else {
        put_be16(at, 0x0200);
        put_be32(at + 2, ip);
    }
}

// Ethernet and IPv4 headers at `at`; `header_size` includes the (zero) IP options.
void put_ethernet_ipv4(uint8_t* at, Endpoint from, Endpoint to, uint8_t protocol,
                       std::size_t header_size, std::size_t total_length, uint16_t ip_id) {
    put_mac(at, to.ip);
    put_mac(at + 6, from.ip);
    put_be16(at + 12, kEtherTypeIpv4);
    uint8_t* const ip = at + kEthernetSize;
    std::memset(ip, 0, header_size);
    ip[0] = static_cast<uint8_t>(0x40 | (header_size / 4 & 0x0F));
    put_be16(ip + 2, static_cast<uint16_t>(total_length));
    put_be16(ip + 4, ip_id);
    put_be16(ip + 6, kDontFragment);
    ip[8] = is_multicast(to.ip) ? kMulticastTtl : kUnicastTtl;
    ip[9] = protocol;
    put_be32(ip + 12, from.ip);
    put_be32(ip + 16, to.ip);
    put_be16(ip + 10, fold_checksum(add_checksum(0, {ip, header_size})));
}

uint32_t pseudo_header_sum(uint32_t from_ip, uint32_t to_ip, uint8_t protocol, std::size_t length) {
    return (from_ip >> 16) + (from_ip & 0xFFFF) + (to_ip >> 16) + (to_ip & 0xFFFF) + protocol +
           static_cast<uint32_t>(length & 0xFFFF);
}

struct TcpHeader {
    uint32_t sequence_number;
    uint32_t acknowledgement_number;
    uint8_t flags;
    std::size_t size; // with options, which are all no-operation
};

// The TCP header at `at` and the checksum over it and the payload, which already stands behind it.
void put_tcp(uint8_t* at, Endpoint from, Endpoint to, const TcpHeader& header,
             std::size_t payload_size) {
    put_be16(at, from.port);
    put_be16(at + 2, to.port);
    put_be32(at + 4, header.sequence_number);
    put_be32(at + 8, header.acknowledgement_number);
    at[12] = static_cast<uint8_t>(header.size / 4 << 4);
    at[13] = header.flags;
    put_be16(at + 14, kWindow);
    put_be16(at + 16, 0); // checksum, below
    put_be16(at + 18, 0); // urgent pointer
    std::memset(at + kTcpSize, kNoOperation, header.size - kTcpSize);
    const std::size_t length = header.size + payload_size;
    const uint32_t sum =
        add_checksum(pseudo_header_sum(from.ip, to.ip, kProtocolTcp, length), {at, length});
    put_be16(at + 16, fold_checksum(sum));
}

void copy_payload(uint8_t* to, std::span<const uint8_t> payload) {
    if (!payload.empty()) {
        std::memcpy(to, payload.data(), payload.size());
    }
}

} // namespace

uint32_t add_checksum(uint32_t sum, std::span<const uint8_t> bytes) {
    // The one's-complement sum may be taken over wider words in either byte order, as long as the
    // result is folded and swapped back. Eight bytes at a time, in the machine's order.
    uint64_t wide = 0;
    const uint8_t* at = bytes.data();
    std::size_t left = bytes.size();
    for (; left >= 8; at += 8, left -= 8) {
        uint64_t word;
        std::memcpy(&word, at, sizeof(word));
        wide += (word & 0xFFFFFFFF) + (word >> 32);
    }
    if (left > 0) {
        uint64_t word = 0;
        std::memcpy(&word, at, left);
        wide += (word & 0xFFFFFFFF) + (word >> 32);
    }
    while (wide >> 16 != 0) {
        wide = (wide & 0xFFFF) + (wide >> 16);
    }
    uint32_t folded = static_cast<uint32_t>(wide);
    if constexpr (std::endian::native == std::endian::little) {
        folded = (folded << 8 & 0xFF00) | folded >> 8;
    }
    return (sum & 0xFFFF) + (sum >> 16) + folded;
}

uint16_t fold_checksum(uint32_t sum) {
    while (sum >> 16 != 0) {
        sum = (sum & 0xFFFF) + (sum >> 16);
    }
    return static_cast<uint16_t>(~sum);
}

void write_udp_frame(Bytes& frame, Endpoint from, Endpoint to, uint16_t ip_id,
                     std::span<const uint8_t> payload) {
    const std::size_t udp_length = kUdpSize + payload.size();
    frame.resize(kEthernetSize + kIpv4Size + udp_length);
    put_ethernet_ipv4(frame.data(), from, to, kProtocolUdp, kIpv4Size, kIpv4Size + udp_length,
                      ip_id);
    uint8_t* const udp = frame.data() + kEthernetSize + kIpv4Size;
    put_be16(udp, from.port);
    put_be16(udp + 2, to.port);
    put_be16(udp + 4, static_cast<uint16_t>(udp_length));
    put_be16(udp + 6, 0);
    copy_payload(udp + kUdpSize, payload);
    const uint16_t checksum = fold_checksum(add_checksum(
        pseudo_header_sum(from.ip, to.ip, kProtocolUdp, udp_length), {udp, udp_length}));
    put_be16(udp + 6, checksum == 0 ? 0xFFFF : checksum); // zero would say "no checksum"
}

void write_tcp_frame(Bytes& frame, Endpoint from, Endpoint to, uint16_t ip_id,
                     uint32_t sequence_number, uint32_t acknowledgement_number, uint8_t tcp_flags,
                     std::span<const uint8_t> payload) {
    const std::size_t total_length = kIpv4Size + kTcpSize + payload.size();
    frame.resize(kEthernetSize + total_length);
    put_ethernet_ipv4(frame.data(), from, to, kProtocolTcp, kIpv4Size, total_length, ip_id);
    uint8_t* const tcp = frame.data() + kEthernetSize + kIpv4Size;
    copy_payload(tcp + kTcpSize, payload);
    put_tcp(tcp, from, to, {sequence_number, acknowledgement_number, tcp_flags, kTcpSize},
            payload.size());
}

TcpSegmentBuilder& TcpSegmentBuilder::from(uint32_t ip, uint16_t port) {
    from_ = {ip, port};
    return *this;
}

TcpSegmentBuilder& TcpSegmentBuilder::to(uint32_t ip, uint16_t port) {
    to_ = {ip, port};
    return *this;
}

TcpSegmentBuilder& TcpSegmentBuilder::seq(uint32_t sequence_number) {
    seq_ = sequence_number;
    return *this;
}

TcpSegmentBuilder& TcpSegmentBuilder::ack(uint32_t acknowledgement_number) {
    ack_ = acknowledgement_number;
    return *this;
}

TcpSegmentBuilder& TcpSegmentBuilder::flags(uint8_t tcp_flags) {
    flags_ = tcp_flags;
    return *this;
}

TcpSegmentBuilder& TcpSegmentBuilder::ip_options(std::size_t size) {
    ip_options_ = size;
    return *this;
}

TcpSegmentBuilder& TcpSegmentBuilder::tcp_options(std::size_t size) {
    tcp_options_ = size;
    return *this;
}

TcpSegmentBuilder& TcpSegmentBuilder::payload(std::span<const uint8_t> bytes) {
    payload_.assign(bytes.begin(), bytes.end());
    return *this;
}

TcpSegmentBuilder& TcpSegmentBuilder::padding(std::size_t size) {
    padding_ = size;
    return *this;
}

TcpSegmentBuilder& TcpSegmentBuilder::bad_checksum() {
    bad_checksum_ = true;
    return *this;
}

Bytes TcpSegmentBuilder::bytes() const {
    const std::size_t ip_size = kIpv4Size + ip_options_;
    const std::size_t tcp_size = kTcpSize + tcp_options_;
    const std::size_t total_length = ip_size + tcp_size + payload_.size();
    Bytes frame(kEthernetSize + total_length + padding_);
    put_ethernet_ipv4(frame.data(), from_, to_, kProtocolTcp, ip_size, total_length, 0);
    uint8_t* const tcp = frame.data() + kEthernetSize + ip_size;
    copy_payload(tcp + tcp_size, payload_);
    put_tcp(tcp, from_, to_, {seq_, ack_, flags_, tcp_size}, payload_.size());
    if (bad_checksum_) {
        tcp[17] ^= 0x01;
    }
    return frame;
}

UdpDatagramBuilder& UdpDatagramBuilder::from(uint32_t ip, uint16_t port) {
    from_ = {ip, port};
    return *this;
}

UdpDatagramBuilder& UdpDatagramBuilder::to(uint32_t ip, uint16_t port) {
    to_ = {ip, port};
    return *this;
}

UdpDatagramBuilder& UdpDatagramBuilder::payload(std::span<const uint8_t> bytes) {
    payload_.assign(bytes.begin(), bytes.end());
    return *this;
}

Bytes UdpDatagramBuilder::bytes() const {
    Bytes frame;
    write_udp_frame(frame, from_, to_, 0, payload_);
    return frame;
}

ParsedFrame parse_frame(std::span<const uint8_t> frame) {
    ParsedFrame parsed;
    if (frame.size() < kEthernetSize + kIpv4Size || get_be16(&frame[12]) != kEtherTypeIpv4) {
        return parsed;
    }
    const uint8_t* const ip = frame.data() + kEthernetSize;
    const std::size_t ip_size = static_cast<std::size_t>(ip[0] & 0x0F) * 4;
    const std::size_t total_length = get_be16(ip + 2);
    if (ip[0] >> 4 != 4 || ip_size < kIpv4Size || total_length < ip_size ||
        frame.size() < kEthernetSize + ip_size || (get_be16(ip + 6) & kFragmentMask) != 0) {
        return parsed;
    }
    const uint8_t protocol = ip[9];
    const std::size_t stated_size = total_length - ip_size;
    // What IP carries, without padding behind it and without what the frame does not hold.
    const auto content = frame.subspan(kEthernetSize + ip_size)
                             .first(std::min(stated_size, frame.size() - kEthernetSize - ip_size));
    const bool whole = content.size() == stated_size;
    const uint32_t from_ip = get_be32(ip + 12);
    const uint32_t to_ip = get_be32(ip + 16);
    const auto sum_is_right = [&](std::span<const uint8_t> bytes) {
        const uint32_t pseudo = pseudo_header_sum(from_ip, to_ip, protocol, bytes.size());
        return fold_checksum(add_checksum(pseudo, bytes)) == 0;
    };

    if (protocol == kProtocolTcp && content.size() >= kTcpSize) {
        const std::size_t tcp_size = static_cast<std::size_t>(content[12] >> 4) * 4;
        if (tcp_size < kTcpSize || tcp_size > content.size()) {
            return parsed;
        }
        parsed.kind = ParsedFrame::Kind::kTcp;
        parsed.payload = content.subspan(tcp_size);
        parsed.tcp_seq = get_be32(&content[4]);
        parsed.tcp_flags = content[13];
        parsed.checksum_ok = whole && sum_is_right(content);
    } else if (protocol == kProtocolUdp && content.size() >= kUdpSize) {
        const std::size_t udp_length = get_be16(&content[4]);
        if (udp_length < kUdpSize) {
            return parsed;
        }
        const auto datagram = content.first(std::min(udp_length, content.size()));
        parsed.kind = ParsedFrame::Kind::kUdp;
        parsed.payload = datagram.subspan(kUdpSize);
        parsed.checksum_ok =
            datagram.size() == udp_length && (get_be16(&content[6]) == 0 || sum_is_right(datagram));
    } else {
        return parsed;
    }
    parsed.from = {from_ip, get_be16(&content[0])};
    parsed.to = {to_ip, get_be16(&content[2])};
    return parsed;
}

} // namespace wirekit
