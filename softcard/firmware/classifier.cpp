#include "softcard/firmware/classifier.h"

#include "wirekit/ethernet.h"

#include <algorithm>

namespace softcard {

namespace {

using wirekit::get_be16;
using wirekit::get_be32;
using wirekit::get_le32;
using wirekit::kEthernetSize;

constexpr uint16_t kEtherTypeIpv4 = 0x0800;
constexpr std::size_t kSmallestIpv4 = 20;
constexpr std::size_t kUdpSize = 8;
constexpr uint8_t kProtocolTcp = 6;
constexpr uint8_t kProtocolUdp = 17;
constexpr uint16_t kFragment = 0x3FFF; // more-fragments bit and fragment offset
constexpr std::size_t kInstrumentOffset = 14;

// A buffer too short to name its instrument passes only where every instrument does.
bool passes(Exchange exchange, std::span<const uint8_t> payload, const Switches& switches,
            const RegisterWindow& registers) {
    if (exchange == Exchange::kShfe ? switches.all_shfe : switches.all_ine) {
        return true;
    }
    return payload.size() >= kInstrumentOffset + sizeof(uint32_t) &&
           registers.filter_entry(exchange, get_le32(&payload[kInstrumentOffset]));
}

bool line_passes(uint32_t group, uint16_t port, std::span<const uint8_t> payload,
                 const Switches& switches, const RegisterWindow& registers) {
    return std::any_of(std::begin(kLines), std::end(kLines), [&](const LineRegisters& line) {
        return group == registers.read(line.group_word) && port == registers.read(line.port_word) &&
               passes(line.exchange, payload, switches, registers);
    });
}

// What the datagram carries; empty unless the frame holds all of it. A datagram in fragments or cut
// short is none that the firmware could decode.
std::span<const uint8_t> datagram_payload(std::span<const uint8_t> frame, std::size_t ip_size) {
    const uint8_t* const ip = frame.data() + kEthernetSize;
    const std::size_t total = get_be16(ip + 2);
    if ((get_be16(ip + 6) & kFragment) != 0 || total < ip_size + kUdpSize ||
        frame.size() < kEthernetSize + total) {
        return {};
    }
    const std::size_t udp_length = get_be16(ip + ip_size + 4);
    if (udp_length < kUdpSize || udp_length > total - ip_size) {
        return {};
    }
    return frame.subspan(kEthernetSize + ip_size + kUdpSize, udp_length - kUdpSize);
}

} // namespace

Classified classify(std::span<const uint8_t> frame, const Switches& switches,
                    const RegisterWindow& registers) {
    if (switches.reset || frame.size() < kEthernetSize + kSmallestIpv4 ||
        get_be16(&frame[12]) != kEtherTypeIpv4) {
        return {};
    }
    const uint8_t* const ip = frame.data() + kEthernetSize;
    if (ip[9] == kProtocolTcp) {
        // Whole and unexamined: what is wrong with it is for the receiver to find.
        return switches.raw ? Classified{Path::kRaw, frame} : Classified{};
    }
    const std::size_t ip_size = std::size_t{4} * (ip[0] & 0x0F);
    if (ip[9] != kProtocolUdp || !switches.decode || ip_size < kSmallestIpv4) {
        return {};
    }
    const auto payload = datagram_payload(frame, ip_size);
    const uint32_t group = get_be32(ip + 16);
    if (payload.empty() || group == 0) { // no group is programmed as 0
        return {};
    }
    const uint16_t port = get_be16(ip + ip_size + 2);
    return line_passes(group, port, payload, switches, registers)
               ? Classified{Path::kDecode, payload}
               : Classified{};
}

} // namespace softcard
