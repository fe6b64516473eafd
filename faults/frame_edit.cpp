#include "faults/frame_edit.h"

namespace faults {

namespace {

using wirekit::Bytes;
using wirekit::get_be16;
using wirekit::kEthernetSize;
using wirekit::put_be16;

constexpr uint8_t kProtocolTcp = 6;
constexpr uint8_t kProtocolUdp = 17;

uint8_t* ip_of(Bytes& frame) {
    return frame.data() + kEthernetSize;
}
std::size_t ip_size_of(const Bytes& frame) {
    return static_cast<std::size_t>(frame[kEthernetSize] & 0x0F) * 4;
}
uint8_t* transport_of(Bytes& frame) {
    return ip_of(frame) + ip_size_of(frame);
}

void add_be32(uint8_t* at, uint32_t amount) {
    wirekit::put_be32(at, wirekit::get_be32(at) + amount);
}

} // namespace

void set_payload(Bytes& frame, std::span<const uint8_t> payload) {
    const auto parsed = wirekit::parse_frame(frame);
    const auto headers = static_cast<std::size_t>(parsed.payload.data() - frame.data());
    frame.resize(headers);
    wirekit::append(frame, payload);
    put_be16(ip_of(frame) + 2, static_cast<uint16_t>(frame.size() - kEthernetSize));
    if (ip_of(frame)[9] == kProtocolUdp) {
        const std::size_t length = frame.size() - kEthernetSize - ip_size_of(frame);
        put_be16(transport_of(frame) + 4, static_cast<uint16_t>(length));
    }
    repair_checksums(frame);
}

void repair_checksums(Bytes& frame) {
    uint8_t* const ip = ip_of(frame);
    const std::size_t ip_size = ip_size_of(frame);
    put_be16(ip + 10, 0);
    put_be16(ip + 10, wirekit::fold_checksum(wirekit::add_checksum(0, {ip, ip_size})));

    uint8_t* const transport = ip + ip_size;
    const uint8_t protocol = ip[9];
    const std::size_t length = get_be16(ip + 2) - ip_size;
    uint8_t* const checksum = transport + (protocol == kProtocolTcp ? 16 : 6);
    if (protocol == kProtocolUdp && get_be16(checksum) == 0) {
        return;
    }
    put_be16(checksum, 0);
    uint32_t sum = protocol + static_cast<uint32_t>(length);
    sum = wirekit::add_checksum(sum, {ip + 12, 8}); // both addresses
    const uint16_t folded = wirekit::fold_checksum(wirekit::add_checksum(sum, {transport, length}));
    // For UDP zero would say "no checksum"; all ones is the same sum.
    put_be16(checksum, folded == 0 && protocol == kProtocolUdp ? 0xFFFF : folded);
}

void set_tcp_flags(Bytes& frame, uint8_t flags) {
    transport_of(frame)[13] = flags;
}

void add_to_tcp_seq(Bytes& frame, uint32_t amount) {
    add_be32(transport_of(frame) + 4, amount);
}

void add_to_tcp_ack(Bytes& frame, uint32_t amount) {
    add_be32(transport_of(frame) + 8, amount);
}

} // namespace faults
