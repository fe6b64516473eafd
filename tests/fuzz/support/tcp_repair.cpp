#include "tcp_repair.h"

#include "snapshot_rig.h"
#include "wirekit/ethernet.h"

namespace fuzz {

TcpPlace find_tcp(std::span<const uint8_t> frame) {
    TcpPlace place;
    if (frame.size() < place.ip + 20) {
        return place;
    }
    place.tcp = place.ip + (frame[place.ip] & 15U) * 4;
    place.whole = frame.size() >= place.tcp + 20;
    return place;
}

void repair_tcp(std::vector<uint8_t>& frame, bool length, bool port, bool checksum) {
    const TcpPlace place = find_tcp(frame);
    if (!place.whole) {
        return;
    }
    uint8_t* const ip = frame.data() + place.ip;
    uint8_t* const tcp = frame.data() + place.tcp;
    if (length) {
        wirekit::put_be16(ip + 2, static_cast<uint16_t>(frame.size() - place.ip));
    }
    if (port) {
        wirekit::put_be16(tcp, kMd2psPort);
    }
    const std::size_t end = place.ip + wirekit::get_be16(ip + 2);
    if (checksum && end >= place.tcp + 20 && end <= frame.size()) {
        const std::size_t segment = end - place.tcp;
        wirekit::put_be16(tcp + 16, 0);
        uint32_t sum = wirekit::add_checksum(6 + static_cast<uint32_t>(segment), {ip + 12, 8});
        sum = wirekit::add_checksum(sum, {tcp, segment});
        wirekit::put_be16(tcp + 16, wirekit::fold_checksum(sum));
    }
}

} // namespace fuzz
