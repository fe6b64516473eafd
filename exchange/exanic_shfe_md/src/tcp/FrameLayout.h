#ifndef FRAME_LAYOUT_H
#define FRAME_LAYOUT_H

// Where IPv4 and TCP stand in a raw Ethernet frame, in network byte order. The Ethernet header is
// 14 bytes without a VLAN tag. Callers have checked the lengths first.

#include "WireRead.h"

#include <cstdint>

inline constexpr uint32_t ETHERNET_SIZE = 14;

inline uint32_t IpHeaderLen(const char* ip) {
    return (static_cast<uint8_t>(ip[0]) & 0x0FU) * 4;
}
inline uint16_t IpTotalLen(const char* ip) {
    return ReadBe16(ip + 2);
}
inline uint8_t IpProtocol(const char* ip) {
    return static_cast<uint8_t>(ip[9]);
}

inline uint32_t TcpHeaderLen(const char* tcp) {
    return (static_cast<uint8_t>(tcp[12]) >> 4) * 4U;
}
inline uint16_t TcpSourcePort(const char* tcp) {
    return ReadBe16(tcp);
}
inline uint16_t TcpDestinationPort(const char* tcp) {
    return ReadBe16(tcp + 2);
}
inline uint32_t TcpSequence(const char* tcp) {
    return ReadBe32(tcp + 4);
}
inline uint8_t TcpFlags(const char* tcp) {
    return static_cast<uint8_t>(tcp[13]);
}

#endif
